// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <Varnix.h>

#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

// Turns a change of a watcher into a descriptor that poll() can wait for. A thread of its own sleeps in the watcher
// set, takes the first change, and then rests until it is set again: so under load it does nothing.
//
// Threads: that of the owner alone, beside its own.
class Alarm {
 public:
  using Change = std::pair<Varnix::Row, std::shared_ptr<Varnix::Watcher>>;

  Alarm();
  ~Alarm();
  Alarm(const Alarm&) = delete;
  Alarm& operator=(const Alarm&) = delete;

  // A watcher that the sets to come must have among their members.
  std::shared_ptr<Varnix::Watcher> MakeRecallWatcher() const;

  // Sleeps for the next change of the set. From here on nobody else may take one, or rows would go back: what the alarm
  // has taken is older than what comes next.
  void Set(std::shared_ptr<Varnix::WatcherSet> changes);
  // Whether the alarm is set and no change has come.
  bool IsSet() const;
  // Readable from when a change has come until it is taken.
  int Descriptor() const { return event_; }
  // The change that has come, once. Throws what the sleep has ended with instead, which may be std::bad_alloc.
  std::optional<Change> Take();
  // Ends the sleep. Returns what there was to take: a change of the set, or that of the recall. Nothing is left. Throws
  // as Take().
  std::optional<Change> Recall();

 private:
  void EndSleep();
  void Run();
  std::shared_ptr<Varnix::WatcherSet> NextSet();
  void Ring(std::optional<Change> change, std::exception_ptr thrown) noexcept;

  const int event_;
  const std::shared_ptr<Varnix::Table> recall_;  // A row that is set here ends the sleep.
  unsigned long recalls_ = 0;

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::shared_ptr<Varnix::WatcherSet> set_;  // Not null: the alarm is set. Guarded by the mutex, as all below.
  std::optional<Change> come_;
  std::exception_ptr thrown_;  // In the place of a change.
  bool stopping_ = false;

  std::thread thread_;
};
