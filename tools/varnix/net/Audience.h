// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "net/End.h"
#include "net/Member.h"

// A row of a member, as it has come.
struct Row {
  std::string_view table, key, value;
  std::int64_t time_us = 0;  // Since 1970.
  bool fresh = false;        // Set after we asked for what there is, as far as can be told.
};

// What an observer tells. Members are told by their places; two may have one name.
class Audience {
 public:
  virtual ~Audience() = default;

  // An announcement, of whatever group, also a repeated one.
  virtual void OnHeard(const Place& /*place*/, const std::string& /*group*/) {}

  // Our own announcement has come back.
  virtual void OnOwnAnnouncement() {}

  // Somebody has connected to us after our announcement, and is of our group.
  virtual void OnCame(const Place& /*place*/) {}

  // A member that is looked for has said who it is.
  virtual void OnMet(const Member& /*member*/) {}

  // A member of another group, or of another database, has said who it is. It is not received.
  virtual void OnOther(const Member& /*member*/) {}

  // What is at this place is a member that is received by way of another address.
  virtual void OnDuplicate(const Member& /*member*/) {}

  // A row of a member. The result is how many bytes more are kept of this member from now on.
  virtual std::size_t OnRow(const Member& /*member*/, const Row& /*row*/) { return 0; }

  // The connection to a member could not be made, or has ended before it had sent all that was wanted. What was kept of
  // the member counts no more.
  virtual void OnEnd(const Member& /*member*/, const End& /*end*/) {}
};
