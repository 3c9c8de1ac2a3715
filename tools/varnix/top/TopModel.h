// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "net/Audience.h"
#include "top/Rate.h"

// What `varnix top` shows: the members, their tables, and the last value of each row.
class TopModel {
 public:
  struct RowEntry {
    std::string value;  // Its beginning, no more than a line shows.
    std::size_t bytes = 0;
    TimePoint changed;
    std::uint64_t number = 0;  // In the order of all changes.
    Rate rate;
  };
  struct TableEntry {
    std::map<std::string, RowEntry> rows;  // By key. Members may choose keys of one hash.
    std::uint64_t bytes = 0;               // Of all keys and values, which may be more than memory can hold.
    Rate rate;
  };
  struct MemberEntry {
    Member member;
    std::map<std::string, TableEntry> tables;
    Rate rate;
  };

  void AddMember(const Member& member);
  void RemoveMember(const Place& place) { members_.erase(place); }

  // How many bytes more are kept from now on.
  std::size_t SetRow(const Member& member, const Row& row, TimePoint now);

  const std::map<Place, MemberEntry>& Members() const { return members_; }
  double RowsPerSecond(TimePoint now) const { return rate_.PerSecond(now); }

 private:
  std::map<Place, MemberEntry> members_;
  std::uint64_t changes_ = 0;
  Rate rate_;
};
