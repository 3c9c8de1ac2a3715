// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <Varnix.h>

#include <chrono>
#include <memory>
#include <unordered_set>
#include <utility>
#include <vector>

#include "tables/LWatcher.h"
#include "tables/WatcherSetListener.h"
#include "threads/Condition.h"

// Keeps its members in two groups, those with nothing pending and those with a change, so that a wait polls nobody.
//
// Threads: any; several may wait at once. A thread that waits keeps the set alive: a static set may be destroyed while
// threads wait in it, when main returns. A forked child never frees a set in which threads of its parent were waiting,
// nor the watchers in it.
// Errors: once the set is made, only the copy of a row allocates or throws.
class LocalTable::LWatcherSet final : public WatcherSetListener,
                                      public Varnix::WatcherSet,
                                      public std::enable_shared_from_this<LWatcherSet> {
 public:
  static std::shared_ptr<LWatcherSet> Make(const std::vector<std::shared_ptr<Varnix::Watcher>>& watchers)
      VARNIX_EXCLUDES(table_lock);

  LWatcherSet();
  ~LWatcherSet() override;

  void WatcherChanged(const std::shared_ptr<LWatcher>& watcher, bool empty) override VARNIX_REQUIRES(table_lock);
  std::pair<Varnix::Row, std::shared_ptr<Varnix::Watcher>> Wait() override VARNIX_EXCLUDES(table_lock);
  std::pair<Varnix::Row, std::shared_ptr<Varnix::Watcher>> WaitUntil(
      const std::chrono::steady_clock::time_point& deadline) override VARNIX_EXCLUDES(table_lock);

  // As WaitUntil(); also tells whether more changes are pending.
  struct Next {
    Varnix::Row row;
    std::shared_ptr<Varnix::Watcher> watcher;
    bool more = false;
  };
  Next TakeUntil(const std::chrono::steady_clock::time_point& deadline) VARNIX_EXCLUDES(table_lock);

  bool IsReady() const VARNIX_REQUIRES(table_lock) { return !ready_.empty(); }
  // Readable while the set is ready; -1, with errno, when none can be made. Also allocates, at the first call.
  int GetDescriptor() VARNIX_EXCLUDES(table_lock);

 private:
  using Members = std::unordered_set<std::shared_ptr<LWatcher>>;

  void Add(const std::shared_ptr<LWatcher>& watcher) VARNIX_REQUIRES(table_lock);
  Next TakeNext() VARNIX_REQUIRES(table_lock);
  void ListenThroughDescriptor() VARNIX_REQUIRES(table_lock);

  // Destroyed without the table lock, because the last references to watchers and tables may be here.
  Members idle_ VARNIX_GUARDED_BY(table_lock);
  Members ready_ VARNIX_GUARDED_BY(table_lock);
  Condition changed_;  // A member has become ready.
  // Null until it is asked for. Then it is what listens to the members.
  std::unique_ptr<ReadyDescriptor> descriptor_ VARNIX_GUARDED_BY(table_lock);
};
