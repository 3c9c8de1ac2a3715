// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "tables/LocalTable.h"

#include <algorithm>
#include <iterator>

#include "logging/Log.h"
#include "memory/StringMemory.h"
#include "tables/AllWatcher.h"
#include "tables/KeyWatcher.h"
#include "tables/LocalTableRegistry.h"

using Varnix::LogLevel;

std::shared_ptr<LocalTable> LocalTable::Make(std::string name) {
  MutexLock lock(table_lock);
  auto table = std::make_shared<LocalTable>(std::move(name));
  LocalTableRegistry::Enter(table);
  return table;
}

std::vector<std::pair<std::string, std::shared_ptr<Varnix::Table>>> LocalTable::GetAll() {
  MutexLock lock(table_lock);
  std::vector<std::pair<std::string, std::shared_ptr<Varnix::Table>>> named;
  for (std::shared_ptr<LocalTable>& table : LocalTableRegistry::Alive()) {
    named.emplace_back(table->name_, std::move(table));
  }
  return named;
}

LocalTable::LocalTable(std::string name) : name_(std::move(name)) {
  key_watchers_.max_load_factor(0.25F);  // A key that nobody watches mostly meets an empty bucket.
}

LocalTable::~LocalTable() { LocalTableRegistry::Leave(this); }

void LocalTable::Set(const Varnix::Row& row) { SetRow(row, true); }

void LocalTable::SetUnlogged(const Varnix::Row& row) { SetRow(row, false); }

void LocalTable::SetRow(const Varnix::Row& row, bool logged) {
  MutexLock lock(table_lock);
  const std::size_t hash = RowIndex::HashOf(row.first);
  const Position* const known = index_.Find(row.first, hash);
  if (logged) {
    Log(LogLevel::Debug, known == nullptr ? "tbl.set.ins" : "tbl.set.upd",
        known == nullptr ? "Table(%p) inserting row for %s (%zu bytes)" : "Table(%p) updating row for %s (%zu bytes)",
        static_cast<void*>(this), row.first.c_str(), row.second.size());
  }
  if (known == nullptr) {
    Insert(row, hash);
  } else {
    Update(*known, row.second);
  }
}

void LocalTable::Insert(const Varnix::Row& row, std::size_t hash) {
  index_.MakeRoom();
  rows_.emplace_back(row);
  const Position position = std::prev(rows_.end());
  index_.Enter(position, hash);
  TellInserted(position);
}

void LocalTable::Update(Position position, const std::string& value) {
  if (position->content.second == value) return;  // No change: nobody is told.
  AssignAndTrim(position->content.second, value);
  // Before the row moves: a watcher whose cursor is on it steps to the row behind its old place.
  TellUpdated(position);
  rows_.splice(rows_.end(), rows_, position);
}

void LocalTable::TellInserted(Position position) {
  for (AllWatcher* watcher : all_watchers_) watcher->RowInserted(position);
  if (key_watchers_.empty()) return;
  const auto [first, last] = key_watchers_.equal_range(position->content.first);
  for (auto entry = first; entry != last; ++entry) {
    ++position->key_watcher_count;
    entry->second->RowInserted(position);
  }
}

void LocalTable::TellUpdated(Position position) {
  for (AllWatcher* watcher : all_watchers_) watcher->RowUpdated(position);
  if (position->key_watcher_count == 0) return;
  const auto [first, last] = key_watchers_.equal_range(position->content.first);
  for (auto entry = first; entry != last; ++entry) entry->second->RowUpdated(position);
}

std::shared_ptr<Varnix::Watcher> LocalTable::Watch(const std::string& key) {
  // Declared before the lock: if logging throws, the watcher's destructor takes the table lock itself.
  std::shared_ptr<KeyWatcher> watcher;
  MutexLock lock(table_lock);
  const Position* const known = index_.Find(key, RowIndex::HashOf(key));
  watcher = std::make_shared<KeyWatcher>(shared_from_this(), key, known == nullptr ? rows_.end() : *known);
  Enrol(*watcher);
  Log(LogLevel::Debug, "tbl.watch.key", "Table(%p) watching %s (%zu watchers total)", static_cast<void*>(this),
      key.c_str(), CountWatchers());
  return watcher;
}

std::shared_ptr<Varnix::Watcher> LocalTable::WatchAll() {
  std::shared_ptr<AllWatcher> watcher;  // Before the lock, as above.
  MutexLock lock(table_lock);
  watcher = std::make_shared<AllWatcher>(shared_from_this(), rows_.begin());
  Enrol(*watcher);
  Log(LogLevel::Debug, "tbl.watch.all", "Table(%p) watching all (%zu watchers total)", static_cast<void*>(this),
      CountWatchers());
  return watcher;
}

void LocalTable::Enrol(AllWatcher& watcher) { all_watchers_.insert(&watcher); }

void LocalTable::Enrol(KeyWatcher& watcher) {
  key_watchers_.emplace(watcher.Key(), &watcher);
  if (watcher.WatchedRow() != rows_.end()) ++watcher.WatchedRow()->key_watcher_count;
}

void LocalTable::StrikeOff(AllWatcher& watcher) { all_watchers_.erase(&watcher); }

void LocalTable::StrikeOff(KeyWatcher& watcher) {
  const auto [first, last] = key_watchers_.equal_range(watcher.Key());
  const auto entry = std::find_if(first, last, [&](const auto& other) { return other.second == &watcher; });
  if (entry == last) return;
  key_watchers_.erase(entry);
  if (watcher.WatchedRow() != rows_.end()) --watcher.WatchedRow()->key_watcher_count;
}

std::size_t LocalTable::CountWatchers() const { return all_watchers_.size() + key_watchers_.size(); }
