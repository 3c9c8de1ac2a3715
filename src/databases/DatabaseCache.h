// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

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
// Threads: any. The cache lock comes before all others but the holder's. It is held while a database is made and
// listed.
class DatabaseCache {
 public:
  // Never null. Each copy of the pointer keeps the cache alive. Once the exiting process has released the cache, this
  // is a new one, whose databases never share.
  static std::shared_ptr<DatabaseCache> Instance();

  DatabaseCache();

  std::shared_ptr<Database> GetDatabase(const std::string& name) VARNIX_EXCLUDES(lock_);
  // Null if it has not been made.
  std::shared_ptr<Database> FindDatabase(const std::string& name) VARNIX_EXCLUDES(lock_);
  const std::shared_ptr<Varnix::Table>& GetDatabaseTable() const { return database_table_; }
  void NetworkChanged() VARNIX_EXCLUDES(lock_);
  // From now on no database shares, not even one that is made later.
  void EndSharing() VARNIX_EXCLUDES(lock_);

  // For fork(): the locks of the cache, if there is one, and of all its databases.
  static void LockAll();
  static void UnlockAll();
  static void ForgetServersInChild();
  // The last step, when the locks are free.
  static void EndPeersInChild();

 private:
  std::shared_ptr<Database> MakeDatabase(const std::string& name) VARNIX_REQUIRES(lock_);

  std::unordered_map<std::string, std::shared_ptr<Database>> databases_ VARNIX_GUARDED_BY(lock_);
  Mutex lock_;
  const std::shared_ptr<Varnix::Table> database_table_;
  bool sharing_ended_ VARNIX_GUARDED_BY(lock_) = false;
};
