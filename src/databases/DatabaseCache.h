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

  std::shared_ptr<Database> GetDatabase(const std::string& name) VARNIX_EXCLUDES(lock_);
  // Null if nobody has asked for it yet.
  std::shared_ptr<Database> FindDatabase(const std::string& name) VARNIX_EXCLUDES(lock_);
  const std::shared_ptr<Varnix::Table>& GetDatabaseTable() const { return database_table_; }
  void NetworkChanged() VARNIX_EXCLUDES(lock_);
  // No database, present or future, shares from now on.
  void EndSharing() VARNIX_EXCLUDES(lock_);

  // For fork(): the locks of the cache, if there is one, and of all its databases.
  static void LockAll();
  static void UnlockAll();
  static void ForgetServersInChild();

 private:
  std::shared_ptr<Database> MakeDatabase(const std::string& name) VARNIX_REQUIRES(lock_);

  std::unordered_map<std::string, std::shared_ptr<Database>> databases_ VARNIX_GUARDED_BY(lock_);
  Mutex lock_;
  const std::shared_ptr<Varnix::Table> database_table_;
  bool sharing_ended_ VARNIX_GUARDED_BY(lock_) = false;
};
