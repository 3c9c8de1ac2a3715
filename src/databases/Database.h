// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <Varnix.h>

#include <memory>
#include <string>

#include "databases/TableDecombiner.h"
#include "network/PeerTable.h"
#include "network/TableServer.h"
#include "threads/Mutex.h"

// How a database is shared: with whom, and as whom.
struct SharingSettings {
  std::string group;
  std::string device;
  std::string process;
  unsigned broadcast_address = 0;  // IPv4, network byte order; 0 selects 255.255.255.255.
};

// A named set of shared tables. It has a combined table, which all its tables feed and which is served to peers; a
// decombiner, which takes in what peers send; and, while it is shared, a table server.
//
// Threads: any. The database lock comes after the cache lock and before those of the decombiner and the tables.
class Database {
 public:
  explicit Database(std::string name);
  // Stops sharing. No other thread may use the database any more.
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  std::shared_ptr<Varnix::Table> MakeTable(const std::string& table);
  const std::shared_ptr<Varnix::Table>& GetTableTable() const { return decombiner_->GetTableTable(); }
  std::shared_ptr<Varnix::Table> GetPeerTable() { return peer_table_.GetTable(); }

  // Stops the present server, if any, and starts a new one. Waits for all threads of the old one.
  // Errors: what is thrown before the old server is stopped (by the first log line, for want of memory, by a lock that
  // fails) changes nothing. When the last log line throws, the new server is there. After any other exception there is
  // none.
  void SetSharing(const SharingSettings& settings) VARNIX_EXCLUDES(lock_);
  // Stops the present server, if any. Waits for all its threads. When the first log line throws, nothing has changed;
  // what the hook throws later is thrown at the end.
  void StopSharing() VARNIX_EXCLUDES(lock_);
  // False, with nothing written, while there is no server.
  bool GetSharing(SharingSettings& settings) VARNIX_EXCLUDES(lock_);
  void NetworkChanged() VARNIX_EXCLUDES(lock_);
  // For a process that exits: ends the server for good. Later settings are only stored.
  void EndSharing() VARNIX_EXCLUDES(lock_);

  // For fork(): this lock and those of the decombiner and the peer table.
  void Lock();
  void Unlock();
  // The server is the parent's. From now on the database is not shared.
  void ForgetServerInChild();
  // The last step, when the locks are free.
  void EndPeersInChild() { peer_table_.EndAllInChild(); }

 private:
  void StopServer() VARNIX_REQUIRES(lock_);

  const std::shared_ptr<Varnix::Table> combined_;
  const std::shared_ptr<TableDecombiner> decombiner_;
  PeerTable peer_table_;
  std::unique_ptr<TableServer> server_ VARNIX_GUARDED_BY(lock_);
  const std::string name_;
  Mutex lock_;
  SharingSettings sharing_ VARNIX_GUARDED_BY(lock_);
  bool sharing_ended_ VARNIX_GUARDED_BY(lock_) = false;
};
