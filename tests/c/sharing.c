// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Databases: two of one process cannot meet, so the other member is a child.
#define _POSIX_C_SOURCE 200809L  // For kill().
#include <arpa/inet.h>
#include <errno.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Check.h"

enum { DEADLINE_MS = 60000 };  // Bounds a failing run only.

static void share(const char* database, const char* process) {
  const varnix_sharing sharing = {
      VARNIX_LITERAL("group"), VARNIX_LITERAL("device"), process, strlen(process), inet_addr("127.255.255.255"),
  };
  CHECK(varnix_share(database, strlen(database), &sharing) == 0);
}

static void the_settings_of_a_shared_database_come_back(void) {
  varnix_sharing* sharing = NULL;
  CHECK(varnix_get_sharing(VARNIX_LITERAL("settings"), &sharing) == -ENOENT && sharing == NULL);

  share("settings", "parent");
  CHECK(varnix_get_sharing(VARNIX_LITERAL("settings"), &sharing) == 0);
  CHECK(sharing->group_size == 5 && strcmp(sharing->group, "group") == 0);
  CHECK(sharing->device_size == 6 && strcmp(sharing->device, "device") == 0);
  CHECK(sharing->process_size == 6 && strcmp(sharing->process, "parent") == 0);
  CHECK(sharing->broadcast_address == inet_addr("127.255.255.255"));
  CHECK(varnix_network_changed() == 0);
  varnix_sharing_free(sharing);
  sharing = NULL;

  CHECK(varnix_stop_sharing(VARNIX_LITERAL("settings")) == 0);
  CHECK(varnix_get_sharing(VARNIX_LITERAL("settings"), &sharing) == -ENOENT && sharing == NULL);
  CHECK(varnix_stop_sharing(VARNIX_LITERAL("settings")) == 0);
}

static void databases_and_their_tables_are_listed(void) {
  varnix_table *databases, *tables, *made;
  varnix_change* change = new_change();
  CHECK(varnix_database_table(&databases) == 0);
  CHECK(varnix_table_table(VARNIX_LITERAL("listed"), &tables) == 0);
  CHECK(varnix_shared_table(VARNIX_LITERAL("listed"), VARNIX_LITERAL("made"), &made) == 0);
  varnix_watcher *database, *table = watch_all(tables);
  CHECK(varnix_table_watch(databases, VARNIX_LITERAL("listed"), &database) == 0);

  CHECK(varnix_watcher_take(database, change) == 0 && is(change, "listed", ""));
  CHECK(varnix_watcher_take(table, change) == 0 && is(change, "made", ""));

  varnix_watcher_free(database);
  varnix_watcher_free(table);
  varnix_table_free(databases);
  varnix_table_free(tables);
  varnix_table_free(made);
  varnix_change_free(change);
}

// Sets a row, and ends with the parent.
static void be_the_other_member(void) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  varnix_table* table;
  CHECK(varnix_shared_table(VARNIX_LITERAL("plant"), VARNIX_LITERAL("status"), &table) == 0);
  set_row(table, "from", "the child");
  share("plant", "child");
  for (;;) pause();
}

static void a_row_of_another_member_arrives_and_its_end_is_told(void) {
  const pid_t child = fork();
  CHECK(child >= 0);
  if (child == 0) be_the_other_member();
  varnix_table *table, *peers;
  CHECK(varnix_shared_table(VARNIX_LITERAL("plant"), VARNIX_LITERAL("status"), &table) == 0);
  CHECK(varnix_peer_table(VARNIX_LITERAL("plant"), &peers) == 0);
  varnix_watcher *rows = watch_all(table), *ends = watch_all(peers);
  varnix_watcher_set *set = set_of(rows), *peer_set = set_of(ends);
  varnix_change* change = new_change();
  share("plant", "parent");
  CHECK(varnix_network_changed() == 0);

  CHECK(varnix_watcher_set_wait(set, DEADLINE_MS, change) == 0 && is(change, "from", "the child"));
  CHECK(varnix_watcher_set_wait(peer_set, DEADLINE_MS, change) == 0);
  CHECK(strcmp(change->key, "device::child") == 0 && strncmp(change->value, "127.0.0.1:", 10) == 0);
  CHECK(kill(child, SIGKILL) == 0 && waitpid(child, NULL, 0) == child);
  do {
    CHECK(varnix_watcher_set_wait(peer_set, DEADLINE_MS, change) == 0);
  } while (change->value_size != 0);
  CHECK(is(change, "device::child", ""));

  CHECK(varnix_stop_sharing(VARNIX_LITERAL("plant")) == 0);
  varnix_watcher_set_free(set);
  varnix_watcher_set_free(peer_set);
  varnix_watcher_free(rows);
  varnix_watcher_free(ends);
  varnix_table_free(table);
  varnix_table_free(peers);
  varnix_change_free(change);
}

int main(void) {
  RUN(the_settings_of_a_shared_database_come_back);
  RUN(databases_and_their_tables_are_listed);
  RUN(a_row_of_another_member_arrives_and_its_end_is_told);
}
