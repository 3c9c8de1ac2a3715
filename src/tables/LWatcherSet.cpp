// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "tables/LWatcherSet.h"

#include <algorithm>

#include "tables/ReadyDescriptor.h"

std::shared_ptr<LocalTable::LWatcherSet> LocalTable::LWatcherSet::Make(
    const std::vector<std::shared_ptr<Varnix::Watcher>>& watchers) {
  // Declared before the lock: if adding a member throws, the set's destructor takes the table lock itself.
  std::shared_ptr<LWatcherSet> set;
  MutexLock lock(table_lock);
  set = std::make_shared<LWatcherSet>();
  // Each group has room for all, so that moving a member never allocates.
  set->idle_.reserve(watchers.size());
  set->ready_.reserve(watchers.size());
  for (const std::shared_ptr<Varnix::Watcher>& watcher : watchers) {
    if (const auto local = std::dynamic_pointer_cast<LWatcher>(watcher)) set->Add(local);
  }
  return set;
}

LocalTable::LWatcherSet::LWatcherSet() = default;

LocalTable::LWatcherSet::~LWatcherSet() {
  MutexLock lock(table_lock);
  WatcherSetListener* const listener = descriptor_ ? static_cast<WatcherSetListener*>(descriptor_.get()) : this;
  for (const std::shared_ptr<LWatcher>& member : idle_) member->RemoveListener(listener);
  for (const std::shared_ptr<LWatcher>& member : ready_) member->RemoveListener(listener);
}

void LocalTable::LWatcherSet::Add(const std::shared_ptr<LWatcher>& watcher) {
  (watcher->Empty() ? idle_ : ready_).insert(watcher);
  watcher->AddListener(this);
}

void LocalTable::LWatcherSet::WatcherChanged(const std::shared_ptr<LWatcher>& watcher, bool empty) {
  Members& from = empty ? ready_ : idle_;
  Members& to = empty ? idle_ : ready_;
  to.insert(from.extract(watcher));
  if (!empty) changed_.NotifyOne();
}

LocalTable::LWatcherSet::Next LocalTable::LWatcherSet::TakeNext() {
  // A watch-all watcher tells only of its first pending change. So a thread that leaves changes behind wakes the next
  // sleeper, also when it fails to copy a row.
  struct WakeNext {
    LWatcherSet& set;
    ~WakeNext() VARNIX_NO_LOCK_ANALYSIS {
      if (!set.ready_.empty()) set.changed_.NotifyOne();
    }
  } wake_next{*this};
  const std::shared_ptr<LWatcher> member = *ready_.begin();
  Varnix::Row row = member->Take();
  if (member->Empty()) member->NotifyListeners(true);  // Tells other sets, too: nothing is left for them.
  return {std::move(row), member, !ready_.empty()};
}

std::pair<Varnix::Row, std::shared_ptr<Varnix::Watcher>> LocalTable::LWatcherSet::Wait() {
  const std::shared_ptr<LWatcherSet> self = shared_from_this();
  MutexLock lock(table_lock);
  while (ready_.empty()) changed_.Wait(lock.ForWaiting());
  Next next = TakeNext();
  return {std::move(next.row), std::move(next.watcher)};
}

std::pair<Varnix::Row, std::shared_ptr<Varnix::Watcher>> LocalTable::LWatcherSet::WaitUntil(
    const std::chrono::steady_clock::time_point& deadline) {
  Next next = TakeUntil(deadline);
  return {std::move(next.row), std::move(next.watcher)};
}

LocalTable::LWatcherSet::Next LocalTable::LWatcherSet::TakeUntil(
    const std::chrono::steady_clock::time_point& deadline) {
  // A wait for a far deadline is cut into days: the seconds of the deadline may not fit a time_t of 32 bits.
  constexpr std::chrono::hours kLongestSleep(24);
  const std::shared_ptr<LWatcherSet> self = shared_from_this();
  MutexLock lock(table_lock);
  while (ready_.empty()) {
    const auto now = std::chrono::steady_clock::now();
    if (now >= deadline) return {};
    changed_.WaitUntil(lock.ForWaiting(), std::min(deadline, now + kLongestSleep));
  }
  return TakeNext();
}

int LocalTable::LWatcherSet::GetDescriptor() {
  MutexLock lock(table_lock);
  if (!descriptor_) ListenThroughDescriptor();
  return descriptor_->Get();
}

void LocalTable::LWatcherSet::ListenThroughDescriptor() {
  descriptor_ = std::make_unique<ReadyDescriptor>(*this);
  for (const std::shared_ptr<LWatcher>& member : idle_) member->ReplaceListener(this, descriptor_.get());
  for (const std::shared_ptr<LWatcher>& member : ready_) member->ReplaceListener(this, descriptor_.get());
}
