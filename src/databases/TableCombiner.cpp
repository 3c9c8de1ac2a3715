#include "databases/TableCombiner.h"

#include <utility>

#include "databases/CombinedKey.h"
#include "logging/Log.h"

TableCombiner::TableCombiner(std::shared_ptr<Varnix::Table> combined_table, std::shared_ptr<Varnix::Table> local_copy,
                             std::string table_name)
    : combined(std::move(combined_table)), local(std::move(local_copy)), name(std::move(table_name)) {}

void TableCombiner::Set(const Varnix::Row& row) {
  Log(Varnix::LogLevel::Debug, "tblcmbn.set", "TableCombiner(%p) setting %s:%s (%zu bytes)", static_cast<void*>(this),
      name.c_str(), row.first.c_str(), row.second.size());
  combined->Set({CombinedKey(name, row.first), row.second});
  local->Set(row);
}

std::shared_ptr<Varnix::Watcher> TableCombiner::Watch(const std::string& key) { return local->Watch(key); }

std::shared_ptr<Varnix::Watcher> TableCombiner::WatchAll() { return local->WatchAll(); }
