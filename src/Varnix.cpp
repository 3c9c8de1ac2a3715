// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <Varnix.h>

#include <cerrno>

#include "databases/DatabaseCache.h"
#include "logging/Log.h"
#include "tables/LWatcherSet.h"
#include "tables/LocalTable.h"

namespace Varnix {

// Out of line, so that the vtables and the type information of the interfaces stand here and nowhere else.
Watcher::~Watcher() = default;
Table::~Table() = default;
WatcherSet::~WatcherSet() = default;

void SetLoggingFunction(std::function<void(LogLevel, const char*, const char*, va_list)> fn) { SetLogHook(fn); }

std::shared_ptr<Table> MakeTable(std::string name) { return LocalTable::Make(std::move(name)); }

std::vector<std::pair<std::string, std::shared_ptr<Table>>> GetLocalTables() { return LocalTable::GetAll(); }

std::shared_ptr<WatcherSet> MakeWatcherSet(std::vector<std::shared_ptr<Watcher>> watchers) {
  return LocalTable::LWatcherSet::Make(watchers);
}

std::shared_ptr<Table> GetDatabaseTable() { return DatabaseCache::Instance()->GetDatabaseTable(); }

std::shared_ptr<Table> GetTableTable(std::string database) {
  return DatabaseCache::Instance()->GetDatabase(database)->GetTableTable();
}

std::shared_ptr<Table> MakeSharedTable(std::string database, std::string table) {
  std::shared_ptr<Table> combiner = DatabaseCache::Instance()->GetDatabase(database)->MakeTable(table);
  Log(LogLevel::Debug, "mkshrdtbl", "MakeSharedTable: %s:%s -> %p", database.c_str(), table.c_str(),
      static_cast<void*>(combiner.get()));
  return combiner;
}

std::shared_ptr<Table> GetPeerTable(std::string database) {
  return DatabaseCache::Instance()->GetDatabase(database)->GetPeerTable();
}

void SetSharingGroup(std::string database, std::string group, std::string device, std::string process,
                     unsigned broadcast_address) {
  const std::shared_ptr<DatabaseCache> cache =
      DatabaseCache::Instance();  // Alive until the new server is in its place.
  cache->GetDatabase(database)->SetSharing({group, device, process, broadcast_address});
}

void StopSharing(std::string database) {
  const std::shared_ptr<DatabaseCache> cache = DatabaseCache::Instance();  // Alive until the server has ended.
  if (const std::shared_ptr<Database> found = cache->FindDatabase(database)) found->StopSharing();
}

bool GetSharingGroup(std::string database, std::string& group, std::string& device, std::string& process,
                     unsigned* broadcast_address) {
  const std::shared_ptr<DatabaseCache> cache = DatabaseCache::Instance();
  const std::shared_ptr<Database> found = cache->FindDatabase(database);
  SharingSettings settings;
  if (!found || !found->GetSharing(settings)) return false;
  group = std::move(settings.group);
  device = std::move(settings.device);
  process = std::move(settings.process);
  if (broadcast_address != nullptr) *broadcast_address = settings.broadcast_address;
  return true;
}

int GetDescriptor(const std::shared_ptr<WatcherSet>& set) {
  if (const auto local = std::dynamic_pointer_cast<LocalTable::LWatcherSet>(set)) return local->GetDescriptor();
  errno = EINVAL;
  return -1;
}

void NetworkChanged() { DatabaseCache::Instance()->NetworkChanged(); }

}  // namespace Varnix
