// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>
#include <varnix_c.h>

// Sets one row, and prints what every member of the group has set or sets: share_a_table_c NAME VALUE
int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const char *name = argv[1], *value = argv[2];

  varnix_table* table;
  varnix_watcher* watcher;
  varnix_watcher_set* changes;
  varnix_change* change;
  const varnix_sharing sharing = {
      VARNIX_LITERAL("line-4"), VARNIX_LITERAL("press"), name, strlen(name), inet_addr("127.255.255.255"),
  };  // That address stays on this device.
  if (varnix_shared_table(VARNIX_LITERAL("plant"), VARNIX_LITERAL("status"), &table) != 0) return 1;
  if (varnix_share(VARNIX_LITERAL("plant"), &sharing) != 0) return 1;
  if (varnix_table_watch_all(table, &watcher) != 0) return 1;
  if (varnix_watcher_set_new(&watcher, 1, &changes) != 0) return 1;
  if (varnix_change_new(&change) != 0) return 1;

  if (varnix_table_set(table, name, strlen(name), value, strlen(value)) != 0) return 1;
  while (varnix_watcher_set_wait(changes, -1, change) == 0) {
    printf("%.*s is %.*s\n", (int)change->key_size, change->key, (int)change->value_size, change->value);
    fflush(stdout);
  }
  return 1;
}
