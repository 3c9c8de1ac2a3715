#include "tables/KeyWatcher.h"

#include <algorithm>
#include <utility>

LocalTable::KeyWatcher::KeyWatcher(std::shared_ptr<LocalTable> watched, std::string watched_key,
                                   Position current) noexcept VARNIX_NO_LOCK_ANALYSIS
    : LWatcher(std::move(watched)),
      row(current),
      key(std::move(watched_key)),
      changed(row != table->rows.end()) {}

LocalTable::KeyWatcher::~KeyWatcher() VARNIX_NO_LOCK_ANALYSIS {
  destruction_lock_.lock();
  const auto [first, last] = table->key_watchers.equal_range(key);
  const auto entry = std::find_if(first, last, [this](const auto& other) { return other.second == this; });
  if (entry == last) return;
  table->key_watchers.erase(entry);
  if (row != table->rows.end()) --row->key_watcher_count;
}

void LocalTable::KeyWatcher::Enter() {
  table->key_watchers.emplace(key, this);
  if (row != table->rows.end()) ++row->key_watcher_count;
}

std::vector<Varnix::Row> LocalTable::KeyWatcher::GetChanges() {
  MutexLock lock(table_lock);
  if (Empty()) return {};
  // Copied before the flag falls: a failed copy must not lose the change.
  std::vector<Varnix::Row> changes{row->content};
  changed = false;
  NotifyListeners(true);
  return changes;
}

void LocalTable::KeyWatcher::RowInserted(Position position) {
  if (position->content.first != key) return;
  row = position;
  ++row->key_watcher_count;
  Changed();
}

void LocalTable::KeyWatcher::RowUpdated(Position position) {
  if (position == row) Changed();
}

void LocalTable::KeyWatcher::Changed() {
  changed = true;
  NotifyListeners(false);
}

bool LocalTable::KeyWatcher::Empty() const { return !changed; }

Varnix::Row LocalTable::KeyWatcher::Take() {
  Varnix::Row taken = row->content;
  changed = false;
  return taken;
}
