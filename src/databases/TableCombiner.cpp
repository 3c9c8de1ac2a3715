#include "databases/TableCombiner.h"

#include <utility>

#include "logging/Log.h"
#include "memory/StringMemory.h"
#include "names/CombinedKey.h"

TableCombiner::TableCombiner(std::shared_ptr<Varnix::Table> combined_table, std::shared_ptr<Varnix::Table> local_copy,
                             std::string table_name)
    : combined(std::move(combined_table)), local(std::move(local_copy)), name(std::move(table_name)) {}

void TableCombiner::Set(const Varnix::Row& row) {
  Log(Varnix::LogLevel::Debug, "tblcmbn.set", "TableCombiner(%p) setting %s:%s (%zu bytes)", static_cast<void*>(this),
      name.c_str(), row.first.c_str(), row.second.size());
  std::unique_ptr<Varnix::Row> own = combined_row.Take();
  AssignCombinedKey(own->first, name, row.first);
  own->second = row.second;
  combined->Set(*own);
  EmptyForReuse(own->first);
  EmptyForReuse(own->second);
  combined_row.GiveBack(std::move(own));
  local->Set(row);
}

std::shared_ptr<Varnix::Watcher> TableCombiner::Watch(const std::string& key) { return local->Watch(key); }

std::shared_ptr<Varnix::Watcher> TableCombiner::WatchAll() { return local->WatchAll(); }
