// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <Varnix.h>

#include <memory>
#include <string>
#include <unordered_map>

#include "memory/Spare.h"
#include "threads/Mutex.h"

// Takes the rows that peers send: each goes, under its plain key, into the local copy of the table that its combined
// key names. Makes the local copies on first use and lists them in the database's table table.
//
// Threads: any. The decombiner lock comes before the table lock. It is not held while a row is set into a local copy.
class TableDecombiner final : public Varnix::Table {
 public:
  explicit TableDecombiner(std::string database);

  void Set(const Varnix::Row& row) override VARNIX_EXCLUDES(lock_);
  // Both return null: rows are watched in the local copies.
  std::shared_ptr<Varnix::Watcher> Watch(const std::string& key) override;
  std::shared_ptr<Varnix::Watcher> WatchAll() override;

  // The local copy of the named shared table.
  std::shared_ptr<Varnix::Table> GetTable(const std::string& name) VARNIX_EXCLUDES(lock_);
  // The table that has one row (name, "") for each of them.
  const std::shared_ptr<Varnix::Table>& GetTableTable() const { return table_table_; }

  // For fork(), which must not copy a lock that another thread holds.
  void Lock();
  void Unlock();

 private:
  Mutex lock_;
  const std::string database_;
  std::unordered_map<std::string, std::shared_ptr<Varnix::Table>> tables_ VARNIX_GUARDED_BY(lock_);
  const std::shared_ptr<Varnix::Table> table_table_;

  struct SplitRow {
    std::string name;
    Varnix::Row plain;
  };
  Spare<SplitRow> split_row_;
};
