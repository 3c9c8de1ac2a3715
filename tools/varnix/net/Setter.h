// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "net/Discovery.h"
#include "net/OwnTable.h"
#include "net/Presence.h"
#include "net/ReceivingStream.h"

// A member of a group that has rows of its own and wants none of the others.
//
// Members that hear its announcement connect and are sent the rows. Those whose announcements it hears are asked to
// connect, for the case that they do not hear it.
class Setter : public Discovery::Owner, public Presence::Owner, public ReceivingStream::Owner {
 public:
  struct Settings {
    std::string group, database;
    std::uint32_t broadcast = 0xFFFFFFFF;  // In host byte order.
    std::string identity;                  // As it is on the wire.
    bool announces = true;
  };

  Setter(Loop& loop, const Settings& settings, const OwnTable& rows);

  std::size_t Connected() const { return presence_.Connected(); }

  // How many members have been met, and which of them have not taken every row. That shows only after Finish().
  std::size_t Met() const { return members_.size(); }
  std::vector<Place> Untaken() const;

  // Those of them that are not connected.
  std::vector<Place> Lost() const;
  void ForgetLost();

  // When anybody last came.
  TimePoint LastEvent() const { return presence_.LastEvent(); }

  // Waits for nobody any more, and ends each stream behind its last row.
  void Finish();

  // Deals with what has happened in a turn of the loop.
  void Tidy();

  // 0, or the error number with which announcements could not be heard, or sent.
  int HearingError() const { return discovery_.HearingError(); }
  int AnnouncingError() const { return presence_.AnnouncingError(); }

 private:
  void OnAnnouncement(const Place& place, const std::string& group) override;
  void OnGuest(const Place& place, const std::string& group, bool stays) override;
  void OnTaken(const Place& place) override;
  void OnGreeting(ReceivingStream& stream, std::string_view database, std::string_view identity) override;
  void OnRow(ReceivingStream&, std::string_view, std::string_view) override {}
  void OnBytes(ReceivingStream&) override {}

  bool ForgetOneLost();

  Loop& loop_;
  const Settings settings_;
  Discovery discovery_;
  Presence presence_;
  std::map<Place, std::unique_ptr<ReceivingStream>> requests_;  // To those who are asked to connect.
  bool finished_ = false;
  std::map<Place, bool> members_;  // Each that has been met, and whether it has taken every row.
};
