// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "net/OwnTable.h"

#include <utility>

void OwnTable::Set(const std::string& key, std::string value) {
  std::uint64_t& change = changes_[key];
  const auto known = rows_.find(change);
  if (known != rows_.end()) {
    if (*known->second.value == value) return;
    rows_.erase(known);
  }
  change = ++last_change_;
  rows_.emplace_hint(rows_.end(), change, Row{key, std::make_shared<const std::string>(std::move(value))});
}
