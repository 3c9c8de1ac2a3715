// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <memory>

#include "tables/LWatcherSet.h"
#include "threads/FileDescriptor.h"

// A descriptor that is readable exactly while its set has a change pending. It listens to the members in place of the
// set, and hands on to the set what it hears: so a set without a descriptor pays nothing.
//
// Threads: everything needs the table lock.
class LocalTable::ReadyDescriptor final : public WatcherSetListener {
 public:
  explicit ReadyDescriptor(LWatcherSet& set) : set_(set) {}

  // Makes it, where there is none: at the first call, and in each forked child, in which that of the parent is closed.
  // Returns -1, with errno, when none can be made.
  int Get() VARNIX_REQUIRES(table_lock);

  void WatcherChanged(const std::shared_ptr<LWatcher>& watcher, bool empty) override VARNIX_REQUIRES(table_lock);

 private:
  void Show(bool ready) const VARNIX_REQUIRES(table_lock);

  LWatcherSet& set_;
  FileDescriptor descriptor_ VARNIX_GUARDED_BY(table_lock);
};
