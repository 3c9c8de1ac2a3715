// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "top/TopModel.h"

namespace {

constexpr std::size_t kShownOfValue = 256;
constexpr std::size_t kBesidesTexts = 160;  // What an entry takes in memory besides its key and value,
constexpr std::size_t kBesidesTable = 320;  // and a table besides its name and its entries.

}  // namespace

void TopModel::AddMember(const Member& member) { members_[member.place].member = member; }

std::size_t TopModel::SetRow(const Member& member, const Row& row, TimePoint now) {
  MemberEntry& owner = members_[member.place];
  if (owner.tables.empty()) owner.member = member;
  const auto [found_table, is_new_table] = owner.tables.try_emplace(std::string(row.table));
  TableEntry& table = found_table->second;
  const auto [found, is_new] = table.rows.try_emplace(std::string(row.key));
  RowEntry& entry = found->second;
  const std::size_t kept_before = entry.value.size();
  table.bytes += row.value.size() + (is_new ? row.key.size() : 0);
  table.bytes -= entry.bytes;
  std::string(row.value.substr(0, kShownOfValue)).swap(entry.value);  // A shorter one keeps no memory of a longer one.
  entry.bytes = row.value.size();
  entry.changed = now;
  entry.number = ++changes_;
  // What was there at the start is no change.
  for (Rate* const rate : {&entry.rate, &table.rate, &owner.rate, &rate_}) {
    if (row.fresh) rate->Count(now);
  }
  return entry.value.size() - kept_before + (is_new ? row.key.size() + kBesidesTexts : 0) +
         (is_new_table ? row.table.size() + kBesidesTable : 0);
}
