// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "tables/LWatcher.h"

#include <utility>

#include "tables/WatcherSetListener.h"

#undef NDEBUG  // The one assertion of the library holds in every build.
#include <assert.h>

LocalTable::LWatcher::LWatcher(std::shared_ptr<LocalTable> table) noexcept
    : destruction_lock_(table_lock, std::defer_lock), table_(std::move(table)) {}

LocalTable::LWatcher::~LWatcher() VARNIX_NO_LOCK_ANALYSIS {
  // As assert(), but with fixed names for file and line: field logs are searched for them.
  if (!destruction_lock_) __assert_fail("destruction_lock_", "src/Varnix", 150, __PRETTY_FUNCTION__);
}

void LocalTable::LWatcher::AddListener(WatcherSetListener* listener) { listeners_.insert(listener); }

void LocalTable::LWatcher::RemoveListener(WatcherSetListener* listener) { listeners_.erase(listener); }

void LocalTable::LWatcher::ReplaceListener(WatcherSetListener* listener, WatcherSetListener* successor) {
  auto node = listeners_.extract(listener);
  node.value() = successor;
  listeners_.insert(std::move(node));
}

void LocalTable::LWatcher::NotifyListeners(bool empty) {
  // This reference is never the last: the sets that listen own this watcher.
  for (WatcherSetListener* listener : listeners_) listener->WatcherChanged(shared_from_this(), empty);
}
