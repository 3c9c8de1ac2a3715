#include "databases/DatabaseCache.h"

#include <utility>

#include "names/InternalTableName.h"
#include "tables/LocalTable.h"
#include "threads/Fork.h"

namespace {

// The one reference that the library itself holds. Never destroyed, because threads that outlive main, and destructors
// of the host's static objects, still ask for the cache.
struct Holder {
  Mutex lock;
  // Null from the moment the process exits until somebody asks again.
  std::shared_ptr<DatabaseCache> cache VARNIX_GUARDED_BY(lock);
};

// Releases the cache at process exit.
class ReleaseAtExit {
 public:
  explicit ReleaseAtExit(Holder& released) : holder_(released) {}
  ~ReleaseAtExit() {
    if (in_forked_child) return;  // It has copies of the servers, but none of their threads.
    std::shared_ptr<DatabaseCache> cache;
    {
      MutexLock lock(holder_.lock);
      cache.swap(holder_.cache);
    }
    // Whoever still has a copy destroys the cache later. But no stream may be left when stdio flushes all of them.
    if (cache.use_count() > 1) cache->EndSharing();
  }

 private:
  Holder& holder_;
};

}  // namespace

std::shared_ptr<DatabaseCache> DatabaseCache::Instance() {
  static Holder& holder = *new Holder{{}, std::make_shared<DatabaseCache>()};
  static ReleaseAtExit release_at_exit(holder);
  MutexLock lock(holder.lock);
  if (!holder.cache) {
    auto late = std::make_shared<DatabaseCache>();
    late->EndSharing();
    holder.cache = std::move(late);
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
