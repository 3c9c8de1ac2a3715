// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "net/Audience.h"
#include "net/Contact.h"
#include "net/Discovery.h"
#include "net/OwnTable.h"
#include "net/Presence.h"

// Finds the members of a group and receives what each of them has set, without being a member: it answers each with a
// group name that is not theirs, so that none connects back, and sets no row anywhere.
//
// It finds them by announcing a port of its own in the group: they connect to it, and say where they accept
// connections. And it hears their own announcements.
//
// Nothing that members send makes it wait or grow beyond its limits: the number of places that are looked after, the
// time that each step of a handshake may take, and the memory for all together.
class Observer : public Discovery::Owner, public Presence::Owner, public ReceivingStream::Owner {
 public:
  struct Settings {
    std::optional<std::string> group, database;  // Without: every one that is heard of.
    std::uint32_t broadcast = 0xFFFFFFFF;        // In host byte order.
    std::string identity;                        // That we go by, as it is on the wire.
    bool announces = true;
    bool visits_other_groups = false;  // To learn who is in them. Their rows are not received.
    bool wants_rows = true;
    bool wants_changes = true;      // Not only the rows that are there.
    std::size_t memory = 64 << 20;  // The most for what members send, in bytes.
    std::size_t places = 1024;      // The most that are looked after.
  };

  Observer(Loop& loop, const Settings& settings, Audience& audience);

  // Deals with what has happened in a turn of the loop; calls the audience.
  void Tidy();

  // When the next step is due.
  TimePoint Deadline() const;

  // Whether all rows of the members that are known have come, and it has been a while since anything was heard of
  // another one.
  bool IsSettled() const;

  // How many members have been met and not lost; how many of them have not sent all their first rows yet.
  int Met() const;
  std::vector<Member> Unfinished() const;

  // How many have connected to us and not said yet who they are.
  std::size_t Unanswered() const;

  // Those who heard us and share another database, by address.
  const CountsByAddress& Strange() const;

  // 0, or the error number with which announcements could not be heard, or sent.
  int HearingError() const { return discovery_.HearingError(); }
  int AnnouncingError() const;

  // Announces us once more in the group that is looked for, and when that was last done.
  void Announce();
  TimePoint AnnouncedAt() const;

  // Connects to a member and gives it our own group and port, so that it connects to us. False if too many are being
  // asked.
  bool AskToConnectBack(const Place& place);

 private:
  void OnAnnouncement(const Place& place, const std::string& group) override;
  void OnGuest(const Place& place, const std::string& group, bool stays) override;
  void OnGreeting(ReceivingStream& stream, std::string_view database, std::string_view identity) override;
  void OnRow(ReceivingStream& stream, std::string_view key, std::string_view value) override;
  void OnBytes(ReceivingStream& stream) override;

  bool IsOfObserver(const Place& place, const std::string& group);
  void Learn(const Place& place, const std::string& group);
  bool IsOurs(const Place& place) const;
  bool IsLookedFor(const Member& member) const;
  bool IsReceivedAlready(const Member& member) const;
  bool MakeRoom(std::uint32_t address);
  void Visit(Contact& contact);
  void AppearIn(const std::string& group, const std::string& database);
  void AppearAmong(const Member& member);
  void Meet(Contact& contact);
  bool IsComplete(const Contact& contact, TimePoint now) const;
  void TidyContact(Contact& contact, TimePoint now);
  void OnStreamEnd(Contact& contact, TimePoint now);
  void KeepWithinMemory();

  Loop& loop_;
  const Settings settings_;
  Audience& audience_;
  const OwnTable no_rows_;
  Discovery discovery_;
  std::vector<std::unique_ptr<Presence>> presences_;  // One for each group and database in which we announce ourselves.
  std::map<Place, Contact> contacts_;
  std::set<Place> observers_;                               // The next announcement of each is that of an observer.
  std::vector<std::unique_ptr<ReceivingStream>> requests_;  // Those that ask members to connect back.
};
