// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <stdio.h>
#include <varnix_c.h>

int main(void) {
  varnix_table* table;
  varnix_watcher* watcher;
  varnix_change* change;
  if (varnix_table_new(VARNIX_LITERAL("status"), &table) != 0 || varnix_table_watch_all(table, &watcher) != 0 ||
      varnix_change_new(&change) != 0) {
    return 1;
  }
  if (varnix_table_set(table, VARNIX_LITERAL("temperature"), VARNIX_LITERAL("81")) != 0) return 1;
  if (varnix_watcher_take(watcher, change) != 0) return 1;
  printf("%s is %s\n", change->key, change->value);
  varnix_change_free(change);
  varnix_watcher_free(watcher);
  varnix_table_free(table);
  return 0;
}
