#include "tables/AllWatcher.h"

#include <iterator>
#include <utility>

LocalTable::AllWatcher::AllWatcher(std::shared_ptr<LocalTable> watched, Position first) noexcept
    : LWatcher(std::move(watched)), cursor(first) {}

LocalTable::AllWatcher::~AllWatcher() VARNIX_NO_LOCK_ANALYSIS {
  destruction_lock_.lock();
  table->all_watchers.erase(this);
}

std::vector<Varnix::Row> LocalTable::AllWatcher::GetChanges() {
  MutexLock lock(table_lock);
  if (Empty()) return {};
  // Copied before anything moves: a failed copy must not lose the change.
  std::vector<Varnix::Row> changes{cursor->content};
  ++cursor;
  if (Empty()) NotifyListeners(true);
  return changes;
}

void LocalTable::AllWatcher::RowInserted(Position position) {
  if (!Empty()) return;  // The new row lies behind the cursor anyway.
  cursor = position;
  NotifyListeners(false);
}

void LocalTable::AllWatcher::RowUpdated(Position position) {
  if (Empty()) {
    cursor = position;
    NotifyListeners(false);
  } else if (cursor == position && std::next(position) != table->rows.end()) {
    ++cursor;  // The updated row will be met again at the end.
  }
}

bool LocalTable::AllWatcher::Empty() const { return cursor == table->rows.end(); }

Varnix::Row LocalTable::AllWatcher::Take() {
  Varnix::Row row = cursor->content;
  ++cursor;
  return row;
}
