// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "web/WebModel.h"

#include <utility>

namespace {

constexpr std::size_t kMostDepartures = 64;
constexpr std::size_t kBesidesTexts = 240;  // What a row takes in memory besides its key and value,
constexpr std::size_t kBesidesTable = 160;  // and a table besides its name and its rows.

}  // namespace

void WebModel::AddMember(const Member& member, std::int64_t time_us) {
  const auto known = members_.find(member.place);
  if (known != members_.end()) Forget(known);
  MemberEntry& entry = members_[member.place];
  entry.member = member;
  entry.since_us = time_us;
  Note(entry.number, &entry);
  ++met_;
}

void WebModel::RemoveMember(const Place& place, const ::End& end, std::int64_t time_us) {
  const auto found = members_.find(place);
  if (found == members_.end()) return;
  Departure departure{std::move(found->second.member), found->second.since_us, time_us, end};
  Forget(found);
  Departure& kept = departures_[last_change_ + 1] = std::move(departure);
  std::uint64_t number = 0;
  Note(number, &kept);
  ++lost_;
  ForgetOldDepartures();
}

std::size_t WebModel::SetRow(const Member& member, const Row& row) {
  const auto owner = members_.find(member.place);
  if (owner == members_.end()) return 0;
  MemberEntry& entry = owner->second;
  const auto [table, is_new_table] = entry.tables.try_emplace(std::string(row.table));
  const auto [found, is_new] = table->second.try_emplace(std::string(row.key));
  RowEntry& kept = found->second;
  if (is_new) {
    kept.member = &entry;
    kept.table = table->first;
    kept.key = found->first;
    entry.bytes += row.key.size();
    ++entry.rows;
  }
  const std::size_t value_before = kept.value.size();
  std::string(row.value).swap(kept.value);  // Assigned, a short value would keep the memory of a long one.
  kept.time_us = row.time_us;
  entry.bytes += row.value.size() - value_before;
  ++entry.changes;
  Note(kept.number, &kept);
  return row.value.size() - value_before + (is_new ? row.key.size() + kBesidesTexts : 0) +
         (is_new_table ? row.table.size() + kBesidesTable : 0);
}

WebModel::Counts WebModel::Count() const {
  Counts counts;
  for (const auto& [place, member] : members_) {
    counts.tables += member.tables.size();
    counts.rows += member.rows;
    counts.bytes += member.bytes;
    counts.changes += member.changes;
  }
  counts.changes += changes_of_the_gone_;
  counts.met = met_;
  counts.lost = lost_;
  return counts;
}

void WebModel::Forget(std::map<Place, MemberEntry>::iterator found) {
  const MemberEntry& entry = found->second;
  changes_.erase(entry.number);
  for (const auto& [table, rows] : entry.tables) {
    for (const auto& [key, row] : rows) changes_.erase(row.number);
  }
  changes_of_the_gone_ += entry.changes;
  members_.erase(found);
}

// Moves what has changed behind everything else.
void WebModel::Note(std::uint64_t& number, const Change& change) {
  if (number != 0) changes_.erase(number);
  number = ++last_change_;
  changes_.emplace_hint(changes_.end(), number, change);
}

void WebModel::ForgetOldDepartures() {
  while (departures_.size() > kMostDepartures) {
    last_forgotten_ = departures_.begin()->first;
    changes_.erase(last_forgotten_);
    departures_.erase(departures_.begin());
  }
}
