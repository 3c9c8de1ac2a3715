#include "databases/TableCombiner.h"

#include <utility>

#include "logging/Log.h"
#include "memory/StringMemory.h"
#include "names/CombinedKey.h"

TableCombiner::TableCombiner(std::shared_ptr<Varnix::Table> combined, std::shared_ptr<Varnix::Table> local,
                             std::string name)
    : combined_(std::move(combined)), local_(std::move(local)), name_(std::move(name)) {}

void TableCombiner::Set(const Varnix::Row& row) {
  Log(Varnix::LogLevel::Debug, "tblcmbn.set", "TableCombiner(%p) setting %s:%s (%zu bytes)", static_cast<void*>(this),
      name_.c_str(), row.first.c_str(), row.second.size());
  std::unique_ptr<Varnix::Row> own = combined_row_.Take();
  AssignCombinedKey(own->first, name_, row.first);
  own->second = row.second;
  combined_->Set(*own);
  EmptyForReuse(own->first);
  EmptyForReuse(own->second);
  combined_row_.GiveBack(std::move(own));
  local_->Set(row);
}

std::shared_ptr<Varnix::Watcher> TableCombiner::Watch(const std::string& key) { return local_->Watch(key); }

std::shared_ptr<Varnix::Watcher> TableCombiner::WatchAll() { return local_->WatchAll(); }
