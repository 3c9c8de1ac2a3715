// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "web/RowCursor.h"

#include <utility>

RowCursor::RowCursor(const WebModel& model, std::optional<std::string> table)
    : model_(model), only_(std::move(table)) {}

const WebModel::RowEntry* RowCursor::Next() {
  const auto& members = model_.Members();
  for (auto member = members.lower_bound(place_); member != members.end(); ++member) {
    if (!(member->first == place_)) {
      place_ = member->first;
      table_.clear();
      key_.reset();
    }
    if (const WebModel::RowEntry* const row = NextOf(member->second)) return row;
  }
  return nullptr;
}

const WebModel::RowEntry* RowCursor::NextOf(const WebModel::MemberEntry& member) {
  if (only_) {
    const auto table = member.tables.find(*only_);
    return table == member.tables.end() ? nullptr : NextOf(*table);
  }
  for (auto table = member.tables.lower_bound(table_); table != member.tables.end(); ++table) {
    if (const WebModel::RowEntry* const row = NextOf(*table)) return row;
  }
  return nullptr;
}

const WebModel::RowEntry* RowCursor::NextOf(const WebModel::Tables::value_type& table) {
  if (table.first != table_) {
    table_ = table.first;
    key_.reset();
  }
  const auto row = key_ ? table.second.upper_bound(*key_) : table.second.begin();
  if (row == table.second.end()) return nullptr;
  key_ = row->first;
  return &row->second;
}
