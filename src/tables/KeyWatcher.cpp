// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "tables/KeyWatcher.h"

#include <utility>

LocalTable::KeyWatcher::KeyWatcher(std::shared_ptr<LocalTable> table, std::string key,
                                   Position row) noexcept VARNIX_NO_LOCK_ANALYSIS
    : LWatcher(std::move(table)),
      row_(row),
      key_(std::move(key)),
      changed_(row_ != table_->rows_.end()) {}

LocalTable::KeyWatcher::~KeyWatcher() VARNIX_NO_LOCK_ANALYSIS {
  destruction_lock_.lock();
  table_->StrikeOff(*this);
}

std::vector<Varnix::Row> LocalTable::KeyWatcher::GetChanges() {
  MutexLock lock(table_lock);
  if (Empty()) return {};
  // Copied before the flag falls: a failed copy must not lose the change.
  std::vector<Varnix::Row> changes{row_->content};
  changed_ = false;
  NotifyListeners(true);
  return changes;
}

void LocalTable::KeyWatcher::RowInserted(Position position) {
  row_ = position;
  Changed();
}

void LocalTable::KeyWatcher::RowUpdated(Position) { Changed(); }

void LocalTable::KeyWatcher::Changed() {
  changed_ = true;
  NotifyListeners(false);
}

bool LocalTable::KeyWatcher::Empty() const { return !changed_; }

Varnix::Row LocalTable::KeyWatcher::Take() {
  Varnix::Row taken = row_->content;
  changed_ = false;
  return taken;
}
