// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "tables/AllWatcher.h"

#include <iterator>
#include <utility>

LocalTable::AllWatcher::AllWatcher(std::shared_ptr<LocalTable> table, Position first) noexcept
    : LWatcher(std::move(table)), cursor_(first) {}

LocalTable::AllWatcher::~AllWatcher() VARNIX_NO_LOCK_ANALYSIS {
  destruction_lock_.lock();
  table_->StrikeOff(*this);
}

std::vector<Varnix::Row> LocalTable::AllWatcher::GetChanges() {
  MutexLock lock(table_lock);
  if (Empty()) return {};
  // Copied before anything moves: a failed copy must not lose the change.
  std::vector<Varnix::Row> changes{cursor_->content};
  ++cursor_;
  if (Empty()) NotifyListeners(true);
  return changes;
}

void LocalTable::AllWatcher::RowInserted(Position position) {
  if (!Empty()) return;  // The new row lies behind the cursor anyway.
  cursor_ = position;
  NotifyListeners(false);
}

void LocalTable::AllWatcher::RowUpdated(Position position) {
  if (Empty()) {
    cursor_ = position;
    NotifyListeners(false);
  } else if (cursor_ == position && std::next(position) != table_->rows_.end()) {
    ++cursor_;  // The cursor meets the updated row again at the end.
  }
}

bool LocalTable::AllWatcher::Empty() const { return cursor_ == table_->rows_.end(); }

Varnix::Row LocalTable::AllWatcher::Take() {
  Varnix::Row row = cursor_->content;
  ++cursor_;
  return row;
}
