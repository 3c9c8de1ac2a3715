// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <list>
#include <memory>
#include <string>

#include "network/PeerPlace.h"
#include "tables/LocalTable.h"
#include "threads/Mutex.h"

// The members from which one database receives, as a table for the users: "DEVICE::PROCESS" is "ADDRESS:PORT" while the
// stream lives, and "" after its end. The table is made when somebody first asks for it; until then only the streams
// that live are kept.
//
// Threads: any. Its lock comes before the table lock.
class PeerTable {
 public:
  explicit PeerTable(std::string database);

  std::shared_ptr<Varnix::Table> GetTable() VARNIX_EXCLUDES(lock_);

  // For fork(). The streams are the parent's: the child shows them as ended, once its locks are free.
  void Lock();
  void Unlock();
  void EndAllInChild() VARNIX_EXCLUDES(lock_);

 private:
  friend class PeerTableEntry;

  void Show(const Varnix::Row& row) VARNIX_REQUIRES(lock_);

  const std::string database_;
  Mutex lock_;
  std::list<Varnix::Row> streams_ VARNIX_GUARDED_BY(lock_);  // One row for each that lives.
  std::shared_ptr<LocalTable> table_ VARNIX_GUARDED_BY(lock_);
};

// Shows a stream in the table for as long as it lives.
class PeerTableEntry {
 public:
  // Throws std::bad_alloc; then nothing is shown.
  PeerTableEntry(PeerTable& peers, const std::string& uid, const PeerPlace& place);
  ~PeerTableEntry();
  PeerTableEntry(const PeerTableEntry&) = delete;
  PeerTableEntry& operator=(const PeerTableEntry&) = delete;

 private:
  PeerTable& peers_;
  std::list<Varnix::Row>::iterator row_;
};
