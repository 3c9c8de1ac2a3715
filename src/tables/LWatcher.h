// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <memory>
#include <mutex>
#include <unordered_set>

#include "tables/LocalTable.h"

// What both kinds of watchers have: their table, and the sets that contain them. A watcher keeps no values and no
// queue, but a position in the table's rows. The row is read when the consumer takes it.
//
// Threads: any. GetChanges() and the destructors take the table lock, so a thread that holds the lock must never drop
// the last reference. Everything else needs the lock.
// Errors: AddListener() allocates, and so do the copies of rows. Nothing else throws.
class LocalTable::LWatcher : public Varnix::Watcher, public std::enable_shared_from_this<LWatcher> {
 public:
  explicit LWatcher(std::shared_ptr<LocalTable> table) noexcept;
  // The destructor of each concrete watcher locks destruction_lock_ and has the table strike the watcher off before any
  // field is destroyed, so that Set() on another thread never calls a half-destroyed watcher.
  ~LWatcher() override;

  // The row at `position`, which this watches, is new.
  virtual void RowInserted(Position position) VARNIX_REQUIRES(table_lock) = 0;
  // The row at `position`, which this watches, has a new value and is about to move to the end.
  virtual void RowUpdated(Position position) VARNIX_REQUIRES(table_lock) = 0;
  virtual bool Empty() const VARNIX_REQUIRES(table_lock) = 0;
  // Takes the next change. Only when not Empty(). Tells no listener, and takes nothing when it throws.
  virtual Varnix::Row Take() VARNIX_REQUIRES(table_lock) = 0;

  void AddListener(WatcherSetListener* listener) VARNIX_REQUIRES(table_lock);
  void RemoveListener(WatcherSetListener* listener) VARNIX_REQUIRES(table_lock);
  // Allocates nothing.
  void ReplaceListener(WatcherSetListener* listener, WatcherSetListener* successor) VARNIX_REQUIRES(table_lock);
  void NotifyListeners(bool empty) VARNIX_REQUIRES(table_lock);

 protected:
  // Destroyed in reverse order: the lock is released last, after the table, which may end with its last watcher.
  std::unique_lock<std::mutex> destruction_lock_;
  const std::shared_ptr<LocalTable> table_;

 private:
  std::unordered_set<WatcherSetListener*> listeners_ VARNIX_GUARDED_BY(table_lock);
};
