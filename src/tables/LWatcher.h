#pragma once

#include <memory>
#include <mutex>
#include <unordered_set>

#include "tables/LocalTable.h"

// What the watchers of one key and of all rows have in common: their table, and the sets that contain them. A watcher
// copies no values and keeps no queue: it holds a position in the table's rows and reads it when the consumer takes it.
//
// Threads: any. GetChanges() takes the table lock, the destructors too; so the last reference must never be dropped by
// a thread that holds it. Everything else needs it held, and neither throws nor allocates, but for the copy in Take().
class LocalTable::LWatcher : public Varnix::Watcher, public std::enable_shared_from_this<LWatcher> {
 public:
  explicit LWatcher(std::shared_ptr<LocalTable> table) noexcept;
  // The destructor of each concrete watcher has locked destruction_lock_ before any of its fields died, so that Set()
  // on another thread never calls a half-destroyed watcher.
  ~LWatcher() override;

  // The row at `position` is new.
  virtual void RowInserted(Position position) VARNIX_REQUIRES(table_lock) = 0;
  // The row at `position` has a new value and is about to move to the end.
  virtual void RowUpdated(Position position) VARNIX_REQUIRES(table_lock) = 0;
  virtual bool Empty() const VARNIX_REQUIRES(table_lock) = 0;
  // The next change. Only when not Empty(); tells nobody, and takes nothing when it throws.
  virtual Varnix::Row Take() VARNIX_REQUIRES(table_lock) = 0;

  void AddListener(WatcherSetListener* listener) VARNIX_REQUIRES(table_lock);
  void RemoveListener(WatcherSetListener* listener) VARNIX_REQUIRES(table_lock);
  void NotifyListeners(bool empty) VARNIX_REQUIRES(table_lock);

 protected:
  // Destroyed in reverse: the lock goes last, after the table, which may end with its last watcher.
  std::unique_lock<std::mutex> destruction_lock_;
  const std::shared_ptr<LocalTable> table_;

 private:
  std::unordered_set<WatcherSetListener*> listeners_ VARNIX_GUARDED_BY(table_lock);
};
