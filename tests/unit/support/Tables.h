// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <Varnix.h>

#include <memory>
#include <string>
#include <vector>

// All that a watcher has to report now.
inline std::vector<Varnix::Row> Drain(Varnix::Watcher& watcher) {
  std::vector<Varnix::Row> rows;
  for (auto next = watcher.GetChanges(); !next.empty(); next = watcher.GetChanges()) rows.push_back(next.at(0));
  return rows;
}

// Every row of a table, oldest change first.
inline std::vector<Varnix::Row> Contents(Varnix::Table& table) { return Drain(*table.WatchAll()); }

// The live local tables of one name.
inline std::vector<std::shared_ptr<Varnix::Table>> LocalTables(const std::string& name) {
  std::vector<std::shared_ptr<Varnix::Table>> found;
  for (const auto& [listed, table] : Varnix::GetLocalTables()) {
    if (listed == name) found.push_back(table);
  }
  return found;
}
