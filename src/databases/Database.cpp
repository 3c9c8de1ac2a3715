#include "databases/Database.h"

#include <limits>
#include <utility>

#include "databases/TableCombiner.h"
#include "logging/Log.h"
#include "names/CombinedKey.h"
#include "names/InternalTableName.h"
#include "tables/LocalTable.h"
#include "threads/Fork.h"

using Varnix::LogLevel;

Database::Database(std::string database_name)
    : combined(LocalTable::Make(InternalTableName("comb", database_name))),
      decombiner(std::make_shared<TableDecombiner>(database_name)),
      name(std::move(database_name)) {
  Log(LogLevel::Debug, "tblcmbn.ctor", "DB(%p) constructed: %s -> combined: %p decombiner: %p",
      static_cast<void*>(this), name.c_str(), static_cast<void*>(combined.get()), static_cast<void*>(decombiner.get()));
}

Database::~Database() {
  // A log hook that throws must not end a process that is exiting.
  try {
    Log(LogLevel::Debug, "tblcmbn.dtor", "DB(%p) destructed", static_cast<void*>(this));
  } catch (...) {
  }
  server.reset();
}

std::shared_ptr<Varnix::Table> Database::MakeTable(const std::string& table) {
  auto combiner = std::make_shared<TableCombiner>(combined, decombiner->GetTable(table), table);
  Log(LogLevel::Debug, "tblcmbn.make", "DB(%p) MakeTable %s -> %p", static_cast<void*>(this), table.c_str(),
      static_cast<void*>(combiner.get()));
  return combiner;
}

void Database::SetSharing(const SharingSettings& settings) {
  Log(LogLevel::Debug, "tblcmbn.sharing", "DB(%p) SetSharing group=\"%s\" dev=\"%s\" proc=\"%s\"",
      static_cast<void*>(this), settings.group.c_str(), settings.device.c_str(), settings.process.c_str());
  SharingSettings stored = settings;
  if (stored.broadcast_address == 0) stored.broadcast_address = std::numeric_limits<unsigned>::max();

  MutexLock guard(lock);
  sharing = std::move(stored);
  StopServer();
  if (sharing_ended || in_forked_child) return;
  server = std::make_unique<TableServer>(CombinedKey(sharing.device, sharing.process), name, decombiner, combined,
                                         sharing.group, sharing.broadcast_address);
  Log(LogLevel::Debug, "tblcmbn.sharing.svr", "DB(%p) SetSharing -> server=%p", static_cast<void*>(this),
      static_cast<void*>(server.get()));
}

bool Database::GetSharing(SharingSettings& settings) {
  MutexLock guard(lock);
  if (!server) return false;
  settings = sharing;
  return true;
}

void Database::NetworkChanged() {
  MutexLock guard(lock);
  if (server && !in_forked_child) server->NetworkChanged();
}

void Database::EndSharing() {
  MutexLock guard(lock);
  sharing_ended = true;
  server.reset();
}

void Database::StopServer() {
  std::unique_ptr<TableServer> stopping = std::move(server);
  if (in_forked_child) {
    static_cast<void>(stopping.release());  // It is the parent's: its threads are not here, its pipes are.
  } else if (stopping) {
    stopping->Stop();
  }
}
