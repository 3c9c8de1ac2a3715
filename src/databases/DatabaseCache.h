#pragma once

#include <Varnix.h>

#include <memory>
#include <string>
#include <unordered_map>

#include "databases/Database.h"
#include "threads/Mutex.h"

// The databases of the process, each made when its name is first asked for and never dropped before the process exits,
// and the table that lists them.
//
// Threads: any. The cache lock is outside all but that of the cache's holder; it is held while a database is made and
// listed.
class DatabaseCache {
 public:
  // Callers keep the cache alive by their copy of the pointer. Never null: while and after the process exits, when the
  // cache has been released and its databases have stopped sharing, it is a new one whose databases never share.
  static std::shared_ptr<DatabaseCache> Instance();

  DatabaseCache();

  std::shared_ptr<Database> GetDatabase(const std::string& name) VARNIX_EXCLUDES(lock);
  // Null if nobody has asked for it yet.
  std::shared_ptr<Database> FindDatabase(const std::string& name) VARNIX_EXCLUDES(lock);
  const std::shared_ptr<Varnix::Table>& GetDatabaseTable() const { return database_table; }
  void NetworkChanged() VARNIX_EXCLUDES(lock);
  // No database, present or future, shares from now on.
  void EndSharing() VARNIX_EXCLUDES(lock);

 private:
  std::shared_ptr<Database> MakeDatabase(const std::string& name) VARNIX_REQUIRES(lock);

  std::unordered_map<std::string, std::shared_ptr<Database>> databases VARNIX_GUARDED_BY(lock);
  Mutex lock;
  const std::shared_ptr<Varnix::Table> database_table;
  bool sharing_ended VARNIX_GUARDED_BY(lock) = false;
};
