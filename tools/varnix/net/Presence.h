// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "net/Acceptor.h"
#include "net/Discovery.h"
#include "net/SendingStream.h"
#include "net/Strangers.h"

// What the network sees of us: a port that is announced in a group, and a database that is served there to everybody
// who connects. An observer serves a table without rows: it only learns who connects.
class Presence : public Waiter, private Acceptor::Owner {
 public:
  class Owner {
   public:
    virtual ~Owner() = default;
    // Somebody has connected, and has said its group and where it accepts connections. Who only asks us to connect
    // there does not stay.
    virtual void OnGuest(const Place& place, const std::string& group, bool stays) = 0;
    // It has taken every row, to the end of the stream.
    virtual void OnTaken(const Place& /*place*/) {}
  };

  struct Settings {
    std::string group, database, identity;
    bool announced = true;
    const char* announced_before = nullptr;  // A group in which it is announced just before its own.
    std::size_t sharers = 1;                 // So many have to share the descriptors that are for guests.
  };

  Presence(Loop& loop, Discovery& discovery, const Settings& settings, const OwnTable& rows, Owner& owner);

  std::uint16_t Port() const { return acceptor_.Port(); }
  const std::string& Group() const { return settings_.group; }
  const std::string& Database() const { return settings_.database; }

  // Announces us once more. The next announcement stays due when it was.
  void Announce();
  TimePoint AnnouncedAt() const { return announced_at_; }  // The last time.

  // 0, or the error number with which the last announcement could not be sent.
  int AnnouncingError() const { return announcing_error_; }

  // When anything last happened: an announcement, a connection, an answer.
  TimePoint LastEvent() const { return last_event_; }

  const Strangers& Strange() const { return strangers_; }

  // How many have connected and not said yet who they are.
  std::size_t Unanswered() const;

  // How many are connected whose group is ours, and whether one accepts connections at that place.
  std::size_t Connected() const;
  bool IsConnected(const Place& place) const;

  // Accepts nobody any more, and ends each stream behind its last row.
  void Finish();

  // Deals with what has become of the connections; once a turn.
  void Tidy();

  pollfd Awaited() const override { return {-1, 0, 0}; }
  void OnReady(short) override {}
  TimePoint Deadline() const override { return next_announcement_; }
  void OnDeadline() override { AnnounceAsScheduled(); }

 private:
  struct Guest {
    std::unique_ptr<SendingStream> stream;
    bool greeted = false;  // It has answered, and the owner knows.
  };

  void OnAccepted(FileDescriptor socket, std::uint32_t address) override;
  void AnnounceAsScheduled();
  std::size_t MostGuests() const;
  void MakeRoom();
  void Look(Guest& guest);
  CountsByAddress GreetedByAddress() const;

  Loop& loop_;
  Discovery& discovery_;
  const Settings settings_;
  const OwnTable& rows_;
  Owner& owner_;
  TimePoint announced_at_{}, next_announcement_ = TimePoint::max();
  int announcements_ = 0;
  int announcing_error_ = 0;
  TimePoint last_event_;
  std::vector<Guest> guests_;
  Strangers strangers_;
  // Ends before the streams: members whose stream ends connect again at once.
  Acceptor acceptor_;
};
