// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <Varnix.h>

#include <memory>
#include <string>
#include <utility>

#include "Errors.h"
#include "Handles.h"

namespace {

// A new handle of the table that `make` returns.
template <typename Make>
int MakeHandle(varnix_table** table, Make make) {
  return ResultOf([&] {
    *table = new varnix_table{make()};
    return 0;
  });
}

template <typename Watch>
int MakeHandle(varnix_watcher** watcher, Watch watch) {
  return ResultOf([&] {
    const auto made = std::make_shared<varnix_watcher>();
    made->watcher = watch();
    made->own = made;
    *watcher = made.get();
    return 0;
  });
}

}  // namespace

int varnix_table_new(const char* name, size_t name_size, varnix_table** table) {
  return MakeHandle(table, [&] { return Varnix::MakeTable(Bytes(name, name_size)); });
}

int varnix_shared_table(const char* database, size_t database_size, const char* name, size_t name_size,
                        varnix_table** table) {
  return MakeHandle(table,
                    [&] { return Varnix::MakeSharedTable(Bytes(database, database_size), Bytes(name, name_size)); });
}

int varnix_database_table(varnix_table** table) {
  return MakeHandle(table, [] { return Varnix::GetDatabaseTable(); });
}

int varnix_table_table(const char* database, size_t database_size, varnix_table** table) {
  return MakeHandle(table, [&] { return Varnix::GetTableTable(Bytes(database, database_size)); });
}

int varnix_peer_table(const char* database, size_t database_size, varnix_table** table) {
  return MakeHandle(table, [&] { return Varnix::GetPeerTable(Bytes(database, database_size)); });
}

void varnix_table_free(varnix_table* table) { delete table; }

int varnix_table_set(varnix_table* table, const char* key, size_t key_size, const char* value, size_t value_size) {
  return ResultOf([&] {
    table->table->Set({Bytes(key, key_size), Bytes(value, value_size)});
    return 0;
  });
}

int varnix_table_watch(varnix_table* table, const char* key, size_t key_size, varnix_watcher** watcher) {
  return MakeHandle(watcher, [&] { return table->table->Watch(Bytes(key, key_size)); });
}

int varnix_table_watch_all(varnix_table* table, varnix_watcher** watcher) {
  return MakeHandle(watcher, [&] { return table->table->WatchAll(); });
}

int varnix_local_tables(varnix_table_list** list) {
  return ResultOf([&] {
    *list = new varnix_table_list{Varnix::GetLocalTables()};
    return 0;
  });
}

size_t varnix_table_list_size(const varnix_table_list* list) { return list->tables.size(); }

int varnix_table_list_get(const varnix_table_list* list, size_t index, const char** name, size_t* name_size,
                          varnix_table** table) {
  if (index >= list->tables.size()) return -EINVAL;
  const std::pair<std::string, std::shared_ptr<Varnix::Table>>& entry = list->tables[index];
  const int result = MakeHandle(table, [&] { return entry.second; });
  if (result != 0) return result;
  *name = entry.first.data();
  *name_size = entry.first.size();
  return 0;
}

void varnix_table_list_free(varnix_table_list* list) { delete list; }
