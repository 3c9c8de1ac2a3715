// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <Varnix.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "tables/RowIndex.h"
#include "tables/StoredRow.h"
#include "tables/TableLock.h"

// A table of this process: a map from key to value that keeps its rows in the order of their last change.
//
// Threads: any; every method takes the table lock.
// Ownership: watchers own their table, the table never owns its watchers.
// Errors: when a call throws, the table is as it was.
class LocalTable final : public Varnix::Table, public std::enable_shared_from_this<LocalTable> {
 public:
  class LWatcher;  // L stands for local.
  class AllWatcher;
  class KeyWatcher;
  class WatcherSetListener;
  class LWatcherSet;
  class ReadyDescriptor;

  using Position = StoredRows::iterator;  // rows_.end() stands for "no row".

  // A new table, entered into the registry.
  static std::shared_ptr<LocalTable> Make(std::string name) VARNIX_EXCLUDES(table_lock);
  // Every live table of the registry with its name.
  static std::vector<std::pair<std::string, std::shared_ptr<Varnix::Table>>> GetAll() VARNIX_EXCLUDES(table_lock);

  explicit LocalTable(std::string name);
  ~LocalTable() override;

  void Set(const Varnix::Row& row) override VARNIX_EXCLUDES(table_lock);
  std::shared_ptr<Varnix::Watcher> Watch(const std::string& key) override VARNIX_EXCLUDES(table_lock);
  std::shared_ptr<Varnix::Watcher> WatchAll() override VARNIX_EXCLUDES(table_lock);

  // As Set() without the log line, for a caller that must succeed although the log hook throws.
  void SetUnlogged(const Varnix::Row& row) VARNIX_EXCLUDES(table_lock);

 private:
  void SetRow(const Varnix::Row& row, bool logged) VARNIX_EXCLUDES(table_lock);
  void Insert(const Varnix::Row& row, std::size_t hash) VARNIX_REQUIRES(table_lock);
  void Update(Position position, const std::string& value) VARNIX_REQUIRES(table_lock);
  void TellInserted(Position position) VARNIX_REQUIRES(table_lock);
  void TellUpdated(Position position) VARNIX_REQUIRES(table_lock);

  // A watcher enters the table's lists in Enrol() and leaves them in StrikeOff(), and nowhere else.
  void Enrol(AllWatcher& watcher) VARNIX_REQUIRES(table_lock);
  void Enrol(KeyWatcher& watcher) VARNIX_REQUIRES(table_lock);
  // Does nothing for a watcher that is in no list, because enrolling it has failed.
  void StrikeOff(AllWatcher& watcher) VARNIX_REQUIRES(table_lock);
  void StrikeOff(KeyWatcher& watcher) VARNIX_REQUIRES(table_lock);
  std::size_t CountWatchers() const VARNIX_REQUIRES(table_lock);

  const std::string name_;
  StoredRows rows_ VARNIX_GUARDED_BY(table_lock);  // Oldest change first.
  RowIndex index_ VARNIX_GUARDED_BY(table_lock);
  // The live watchers, by what they watch: a change is told only to those that it concerns.
  std::unordered_set<AllWatcher*> all_watchers_ VARNIX_GUARDED_BY(table_lock);
  std::unordered_multimap<std::string_view, KeyWatcher*> key_watchers_ VARNIX_GUARDED_BY(table_lock);
};
