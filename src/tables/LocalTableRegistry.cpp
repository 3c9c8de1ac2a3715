// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "tables/LocalTableRegistry.h"

#include <unordered_map>

#include "tables/LocalTable.h"
#include "threads/Mutex.h"

namespace {

using WeakTables = std::unordered_map<LocalTable*, std::weak_ptr<LocalTable>>;

Mutex registry_lock;

// Null once the process exits.
WeakTables* OpenRegistry() VARNIX_REQUIRES(registry_lock) {
  static WeakTables* tables = new WeakTables;
  static struct FreeAtExit {
    ~FreeAtExit() {
      MutexLock lock(registry_lock);
      delete tables;
      tables = nullptr;
    }
  } free_at_exit;
  return tables;
}

}  // namespace

void LocalTableRegistry::Enter(const std::shared_ptr<LocalTable>& table) {
  MutexLock lock(registry_lock);
  if (WeakTables* tables = OpenRegistry()) tables->emplace(table.get(), table);
}

void LocalTableRegistry::Leave(LocalTable* table) {
  MutexLock lock(registry_lock);
  if (WeakTables* tables = OpenRegistry()) tables->erase(table);
}

std::vector<std::shared_ptr<LocalTable>> LocalTableRegistry::Alive() {
  // Declared before the lock: one of these may be the last reference to a table, whose destructor takes it.
  std::vector<std::shared_ptr<LocalTable>> alive;
  MutexLock lock(registry_lock);
  if (WeakTables* tables = OpenRegistry()) {
    alive.reserve(tables->size());
    for (const auto& [address, weak] : *tables) {
      if (std::shared_ptr<LocalTable> table = weak.lock()) alive.push_back(std::move(table));
    }
  }
  return alive;
}

void LocalTableRegistry::Lock() VARNIX_NO_LOCK_ANALYSIS { registry_lock.lock(); }

void LocalTableRegistry::Unlock() VARNIX_NO_LOCK_ANALYSIS { registry_lock.unlock(); }

void LocalTableRegistry::LeaveInChild(LocalTable* table) VARNIX_NO_LOCK_ANALYSIS {
  if (WeakTables* tables = OpenRegistry()) tables->erase(table);
}
