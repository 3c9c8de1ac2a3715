// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "web/RowsFeed.h"

#include <utility>

#include "commands/Description.h"
#include "text/JsonObject.h"

RowsFeed::RowsFeed(const WebModel& model, std::optional<std::string> table) : rows_(model, std::move(table)) {}

void RowsFeed::Fill(std::string& out) {
  const std::size_t enough = out.size() + kPiece;
  while (!done_ && out.size() < enough) {
    if (const WebModel::RowEntry* const row = rows_.Next()) {
      JsonObject object(out);
      Describe(object, row->member->member, {row->table, row->key, row->value, row->time_us});
      object.End();
    } else {
      done_ = true;
    }
  }
}
