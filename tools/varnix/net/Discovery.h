// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstdint>
#include <string>

#include "net/FileDescriptor.h"
#include "net/Loop.h"
#include "net/Place.h"

// Hears what members announce on this network, and sends announcements.
class Discovery : public Waiter {
 public:
  class Owner {
   public:
    virtual ~Owner() = default;
    virtual void OnAnnouncement(const Place& place, const std::string& group) = 0;
  };

  // Announcements go to the broadcast address, which is in host byte order.
  Discovery(Loop& loop, std::uint32_t broadcast, Owner& owner);

  // The error number with which the port of announcements could not be shared, so that nothing is heard; or 0.
  int HearingError() const { return hearing_error_; }

  // 0 or an error number.
  int Send(const std::string& datagram);

  pollfd Awaited() const override;
  void OnReady(short events) override;

 private:
  const std::uint32_t broadcast_;
  Owner& owner_;
  FileDescriptor socket_;
  int hearing_error_;
};
