// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "databases/TableCombiner.h"

#include <utility>

#include "logging/Log.h"
#include "memory/StringMemory.h"
#include "names/CombinedKey.h"
#include "names/RecordLimits.h"

TableCombiner::TableCombiner(std::shared_ptr<Varnix::Table> combined, std::shared_ptr<Varnix::Table> local,
                             std::string name)
    : combined_(std::move(combined)), local_(std::move(local)), name_(std::move(name)) {}

void TableCombiner::Set(const Varnix::Row& row) {
  Log(Varnix::LogLevel::Debug, "tblcmbn.set", "TableCombiner(%p) setting %s:%s (%zu bytes)", static_cast<void*>(this),
      name_.c_str(), row.first.c_str(), row.second.size());
  std::unique_ptr<Varnix::Row> own = combined_row_.Take();
  AssignCombinedKey(own->first, name_, row.first);
  own->second = row.second;
  if (own->first.size() > kLongestRecordKey || own->second.size() > kLongestRecordValue) WarnThatItIsTooLong(row, *own);
  combined_->Set(*own);
  EmptyForReuse(own->first);
  EmptyForReuse(own->second);
  combined_row_.GiveBack(std::move(own));
  local_->Set(row);
}

void TableCombiner::WarnThatItIsTooLong(const Varnix::Row& row, const Varnix::Row& combined_row) {
  Log(Varnix::LogLevel::Warning, "tblcmbn.set.long",
      "TableCombiner(%p) row %s:%s is too long for peers: combined key %zu of %zu bytes, value %zu of %zu",
      static_cast<void*>(this), name_.c_str(), row.first.c_str(), combined_row.first.size(), kLongestRecordKey,
      combined_row.second.size(), kLongestRecordValue);
}

std::shared_ptr<Varnix::Watcher> TableCombiner::Watch(const std::string& key) { return local_->Watch(key); }

std::shared_ptr<Varnix::Watcher> TableCombiner::WatchAll() { return local_->WatchAll(); }
