// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <memory>

#include "tables/LocalTable.h"

// Listens to the watchers of a set: the set itself, or its descriptor. A watcher tells its listeners when it has a new
// change pending, which it may tell twice, and when it has none any more.
class LocalTable::WatcherSetListener {
 public:
  virtual void WatcherChanged(const std::shared_ptr<LWatcher>& watcher, bool empty) VARNIX_REQUIRES(table_lock) = 0;
  virtual ~WatcherSetListener() = default;
};
