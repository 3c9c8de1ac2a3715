// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "databases/Database.h"

#include <limits>
#include <utility>

#include "databases/TableCombiner.h"
#include "logging/Log.h"
#include "names/CombinedKey.h"
#include "names/InternalTableName.h"
#include "tables/LocalTable.h"

using Varnix::LogLevel;

Database::Database(std::string name)
    : combined_(LocalTable::Make(InternalTableName("comb", name))),
      decombiner_(std::make_shared<TableDecombiner>(name)),
      peer_table_(name),
      name_(std::move(name)) {
  Log(LogLevel::Debug, "tblcmbn.ctor", "DB(%p) constructed: %s -> combined: %p decombiner: %p",
      static_cast<void*>(this), name_.c_str(), static_cast<void*>(combined_.get()),
      static_cast<void*>(decombiner_.get()));
}

Database::~Database() {
  // What a log hook throws must not end a process that is exiting.
  try {
    Log(LogLevel::Debug, "tblcmbn.dtor", "DB(%p) destructed", static_cast<void*>(this));
  } catch (...) {
  }
  server_.reset();
}

std::shared_ptr<Varnix::Table> Database::MakeTable(const std::string& table) {
  auto combiner = std::make_shared<TableCombiner>(combined_, decombiner_->GetTable(table), table);
  Log(LogLevel::Debug, "tblcmbn.make", "DB(%p) MakeTable %s -> %p", static_cast<void*>(this), table.c_str(),
      static_cast<void*>(combiner.get()));
  return combiner;
}

void Database::SetSharing(const SharingSettings& settings) {
  Log(LogLevel::Debug, "tblcmbn.sharing", "DB(%p) SetSharing group=\"%s\" dev=\"%s\" proc=\"%s\"",
      static_cast<void*>(this), settings.group.c_str(), settings.device.c_str(), settings.process.c_str());
  SharingSettings stored = settings;
  if (stored.broadcast_address == 0) stored.broadcast_address = std::numeric_limits<unsigned>::max();

  MutexLock lock(lock_);
  sharing_ = std::move(stored);
  StopServer();
  if (sharing_ended_) return;
  // What it receives goes to the decombiner, what it sends comes from the combined table: no row is sent on or back.
  server_ = std::make_unique<TableServer>(CombinedKey(sharing_.device, sharing_.process), name_, decombiner_, combined_,
                                          sharing_.group, sharing_.broadcast_address, peer_table_);
  Log(LogLevel::Debug, "tblcmbn.sharing.svr", "DB(%p) SetSharing -> server=%p", static_cast<void*>(this),
      static_cast<void*>(server_.get()));
}

void Database::StopSharing() {
  Log(LogLevel::Debug, "tblcmbn.stop", "DB(%p) StopSharing", static_cast<void*>(this));
  MutexLock lock(lock_);
  StopServer();
}

bool Database::GetSharing(SharingSettings& settings) {
  MutexLock lock(lock_);
  if (!server_) return false;
  settings = sharing_;
  return true;
}

void Database::NetworkChanged() {
  MutexLock lock(lock_);
  if (server_) server_->NetworkChanged();
}

void Database::EndSharing() {
  MutexLock lock(lock_);
  sharing_ended_ = true;
  server_.reset();
}

void Database::StopServer() {
  const std::unique_ptr<TableServer> stopping = std::move(server_);
  if (stopping) stopping->Stop();
}

void Database::Lock() VARNIX_NO_LOCK_ANALYSIS {
  lock_.lock();
  decombiner_->Lock();
  peer_table_.Lock();
}

void Database::Unlock() VARNIX_NO_LOCK_ANALYSIS {
  peer_table_.Unlock();
  decombiner_->Unlock();
  lock_.unlock();
}

void Database::ForgetServerInChild() VARNIX_NO_LOCK_ANALYSIS {
  if (server_) server_.release()->ForgetInChild();
}
