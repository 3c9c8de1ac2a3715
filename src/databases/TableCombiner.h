// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <Varnix.h>

#include <memory>
#include <string>

#include "memory/Spare.h"

// What an application holds for a shared table. A row that is set here goes into the combined table of the database,
// which is served to peers, and into the table's local copy, which also gets what peers send. Watchers watch the copy.
//
// Threads: any; takes no lock of its own.
class TableCombiner final : public Varnix::Table {
 public:
  TableCombiner(std::shared_ptr<Varnix::Table> combined, std::shared_ptr<Varnix::Table> local, std::string name);

  void Set(const Varnix::Row& row) override;
  std::shared_ptr<Varnix::Watcher> Watch(const std::string& key) override;
  std::shared_ptr<Varnix::Watcher> WatchAll() override;

 private:
  void WarnThatItIsTooLong(const Varnix::Row& row, const Varnix::Row& combined_row);

  const std::shared_ptr<Varnix::Table> combined_;
  const std::shared_ptr<Varnix::Table> local_;
  const std::string name_;
  Spare<Varnix::Row> combined_row_;
};
