// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "databases/DatabaseCache.h"

#include <utility>

#include "memory/NeverDestroyed.h"
#include "names/InternalTableName.h"
#include "tables/LocalTable.h"

namespace {

// The library's own reference to the cache.
struct Holder {
  Mutex lock;
  // Null before the first call of Instance(), and from process exit until the next.
  std::shared_ptr<DatabaseCache> cache VARNIX_GUARDED_BY(lock);
  bool exiting VARNIX_GUARDED_BY(lock) = false;
};

// Threads that outlive main, and destructors of the program's static objects, still ask for the cache.
NeverDestroyed<Holder> never_destroyed;
Holder& holder = never_destroyed.value;

// Releases the cache at process exit.
struct ReleaseAtExit {
  ~ReleaseAtExit() {
    std::shared_ptr<DatabaseCache> cache;
    {
      MutexLock lock(holder.lock);
      holder.exiting = true;
      cache.swap(holder.cache);
    }
    // A thread that still has a copy destroys the cache later. But no stream may be open when stdio flushes them all.
    if (cache.use_count() > 1) cache->EndSharing();
  }
};

}  // namespace

std::shared_ptr<DatabaseCache> DatabaseCache::Instance() {
  MutexLock lock(holder.lock);
  if (!holder.cache) {
    auto made = std::make_shared<DatabaseCache>();
    if (holder.exiting) {
      made->EndSharing();
    } else {
      static const ReleaseAtExit release_at_exit;  // Made under the lock: a fork never meets it half made.
    }
    holder.cache = std::move(made);
  }
  return holder.cache;
}

DatabaseCache::DatabaseCache() : database_table_(LocalTable::Make(InternalTableName("dbtbl", "main"))) {}

std::shared_ptr<Database> DatabaseCache::GetDatabase(const std::string& name) {
  MutexLock lock(lock_);
  const auto [entry, absent] = databases_.try_emplace(name);
  if (absent) {
    try {
      entry->second = MakeDatabase(name);
    } catch (...) {
      databases_.erase(entry);
      throw;
    }
  }
  return entry->second;
}

std::shared_ptr<Database> DatabaseCache::MakeDatabase(const std::string& name) {
  auto database = std::make_shared<Database>(name);
  if (sharing_ended_) database->EndSharing();
  database_table_->Set({name, ""});
  return database;
}

std::shared_ptr<Database> DatabaseCache::FindDatabase(const std::string& name) {
  MutexLock lock(lock_);
  const auto found = databases_.find(name);
  return found == databases_.end() ? nullptr : found->second;
}

void DatabaseCache::NetworkChanged() {
  MutexLock lock(lock_);
  for (const auto& [name, database] : databases_) database->NetworkChanged();
}

void DatabaseCache::EndSharing() {
  MutexLock lock(lock_);
  sharing_ended_ = true;
  for (const auto& [name, database] : databases_) database->EndSharing();
}

void DatabaseCache::LockAll() VARNIX_NO_LOCK_ANALYSIS {
  holder.lock.lock();
  if (!holder.cache) return;
  holder.cache->lock_.lock();
  for (const auto& [name, database] : holder.cache->databases_) database->Lock();
}

void DatabaseCache::UnlockAll() VARNIX_NO_LOCK_ANALYSIS {
  if (holder.cache) {
    for (const auto& [name, database] : holder.cache->databases_) database->Unlock();
    holder.cache->lock_.unlock();
  }
  holder.lock.unlock();
}

void DatabaseCache::ForgetServersInChild() VARNIX_NO_LOCK_ANALYSIS {
  if (!holder.cache) return;
  for (const auto& [name, database] : holder.cache->databases_) database->ForgetServerInChild();
}

void DatabaseCache::EndPeersInChild() VARNIX_NO_LOCK_ANALYSIS {
  if (!holder.cache) return;
  for (const auto& [name, database] : holder.cache->databases_) database->EndPeersInChild();
}
