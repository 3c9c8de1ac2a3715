// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "web/RowsFeed.h"

#include <utility>

#include "commands/Description.h"
#include "text/JsonObject.h"

RowsFeed::RowsFeed(const WebModel& model, std::optional<std::string> table) : model_(model), only_(std::move(table)) {}

void RowsFeed::Fill(std::string& out) {
  const std::size_t enough = out.size() + kPiece;
  const auto& members = model_.Members();
  for (auto member = members.lower_bound(place_); member != members.end(); ++member) {
    if (!(member->first == place_)) {
      place_ = member->first;
      table_.clear();
      key_.reset();
    }
    if (!WriteMember(out, member->second, enough)) return;
  }
  done_ = true;
}

bool RowsFeed::WriteMember(std::string& out, const WebModel::MemberEntry& member, std::size_t enough) {
  for (auto table = member.tables.lower_bound(table_); table != member.tables.end(); ++table) {
    if (table->first != table_) {
      table_ = table->first;
      key_.reset();
    }
    if ((!only_ || *only_ == table_) && !WriteRows(out, table->second, enough)) return false;
  }
  return true;
}

bool RowsFeed::WriteRows(std::string& out, const WebModel::Rows& rows, std::size_t enough) {
  for (auto row = key_ ? rows.upper_bound(*key_) : rows.begin(); row != rows.end(); ++row) {
    if (out.size() >= enough) return false;
    const WebModel::RowEntry& entry = row->second;
    JsonObject object(out);
    Describe(object, entry.member->member, {entry.table, entry.key, entry.value, entry.time_us});
    object.End();
    key_ = row->first;
  }
  return true;
}
