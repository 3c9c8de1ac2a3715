// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <string_view>
#include <variant>

#include "net/Audience.h"
#include "net/End.h"
#include "net/Member.h"

// What the page shows: the members, those that have left, and the last value of each row.
//
// Every change has a number, and each thing stands once, at the number of its last change. So whoever has shown
// everything up to a number goes on behind it: one that is slow finds the newest state, and no backlog is kept.
class WebModel {
 public:
  struct MemberEntry;

  struct RowEntry {
    const MemberEntry* member = nullptr;
    std::string_view table, key;  // As the maps hold them.
    std::string value;
    std::int64_t time_us = 0;
    std::uint64_t number = 0;
  };
  using Rows = std::map<std::string, RowEntry, std::less<>>;
  using Tables = std::map<std::string, Rows, std::less<>>;

  struct MemberEntry {
    Member member;
    std::int64_t since_us = 0;
    std::uint64_t number = 0;
    Tables tables;
    std::size_t rows = 0, bytes = 0;
    std::uint64_t changes = 0;  // Also those that repeat a value.
  };

  // A member that has left.
  struct Departure {
    Member member;
    std::int64_t since_us = 0, left_us = 0;
    End end;
  };

  using Change = std::variant<const MemberEntry*, const RowEntry*, const Departure*>;
  using Changes = std::map<std::uint64_t, Change>;

  struct Counts {
    std::size_t tables = 0, rows = 0, bytes = 0;
    std::uint64_t changes = 0, met = 0, lost = 0;
  };

  // A member has come. Nothing that was known of its place counts any more.
  void AddMember(const Member& member, std::int64_t time_us);

  // Forgets its rows. A place where no member is changes nothing.
  void RemoveMember(const Place& place, const End& end, std::int64_t time_us);

  // How many bytes more are kept from now on.
  std::size_t SetRow(const Member& member, const Row& row);

  const std::map<Place, MemberEntry>& Members() const { return members_; }
  Counts Count() const;

  // The last ones, by the number of the change.
  const std::map<std::uint64_t, Departure>& Departures() const { return departures_; }

  // The oldest change behind that number; end() if there is none. The first is 1.
  Changes::const_iterator After(std::uint64_t number) const { return changes_.upper_bound(number); }
  Changes::const_iterator End() const { return changes_.end(); }
  std::uint64_t LastChange() const { return last_change_; }

  // Departures up to this number are forgotten: whoever has not shown them begins anew.
  std::uint64_t LastForgotten() const { return last_forgotten_; }

 private:
  void Forget(std::map<Place, MemberEntry>::iterator found);
  void Note(std::uint64_t& number, const Change& change);
  void ForgetOldDepartures();

  std::map<Place, MemberEntry> members_;
  std::map<std::uint64_t, Departure> departures_;
  Changes changes_;
  std::uint64_t last_change_ = 0, last_forgotten_ = 0;
  std::uint64_t changes_of_the_gone_ = 0, met_ = 0, lost_ = 0;
};
