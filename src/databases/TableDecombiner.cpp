// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "databases/TableDecombiner.h"

#include <utility>

#include "logging/Log.h"
#include "memory/StringMemory.h"
#include "names/CombinedKey.h"
#include "names/InternalTableName.h"
#include "tables/LocalTable.h"

using Varnix::LogLevel;

TableDecombiner::TableDecombiner(std::string database)
    : database_(std::move(database)), table_table_(LocalTable::Make(InternalTableName("tbltbl", database_))) {}

void TableDecombiner::Set(const Varnix::Row& row) {
  std::unique_ptr<SplitRow> split = split_row_.Take();
  auto& [name, plain] = *split;
  const SplitKey parts(row.first);
  name = parts.name;
  plain.first = parts.key;
  plain.second = row.second;
  const std::shared_ptr<Varnix::Table> table = GetTable(name);
  // The combiner has this tag, too. It stays: field logs are read by it.
  Log(LogLevel::Debug, "tblcmbn.set", "TableDecombiner(%p) setting %s:%s (%zu bytes)", static_cast<void*>(this),
      name.c_str(), plain.first.c_str(), row.second.size());
  table->Set(plain);
  EmptyForReuse(plain.first);
  EmptyForReuse(plain.second);
  split_row_.GiveBack(std::move(split));
}

std::shared_ptr<Varnix::Watcher> TableDecombiner::Watch(const std::string&) { return nullptr; }

std::shared_ptr<Varnix::Watcher> TableDecombiner::WatchAll() { return nullptr; }

std::shared_ptr<Varnix::Table> TableDecombiner::GetTable(const std::string& name) {
  MutexLock lock(lock_);
  const auto [entry, absent] = tables_.try_emplace(name);
  if (!absent) return entry->second;
  try {
    entry->second = LocalTable::Make(InternalTableName("out_" + name, database_));
    table_table_->Set({name, ""});
  } catch (...) {
    tables_.erase(entry);
    throw;
  }
  // From here on the table is made and listed, also if the log hook throws.
  Log(LogLevel::Debug, "tblcmbn.create", "TableDecombiner(%p) created table %s -> %p", static_cast<void*>(this),
      name.c_str(), static_cast<void*>(entry->second.get()));
  return entry->second;
}

void TableDecombiner::Lock() VARNIX_NO_LOCK_ANALYSIS { lock_.lock(); }

void TableDecombiner::Unlock() VARNIX_NO_LOCK_ANALYSIS { lock_.unlock(); }
