// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// What the tests of the library for C are made with. A program is a list of tests, RUN(name) each; a check that fails
// ends it.

#ifndef CHECK_H_
#define CHECK_H_

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <varnix_c.h>

#define CHECK(condition)                                                         \
  do {                                                                           \
    if (!(condition)) {                                                          \
      fprintf(stderr, "%s:%d: %s: is not so\n", __FILE__, __LINE__, #condition); \
      exit(1);                                                                   \
    }                                                                            \
  } while (0)

#define RUN(test)          \
  do {                     \
    printf("%s\n", #test); \
    fflush(stdout);        \
    test();                \
  } while (0)

static inline varnix_table* new_table(void) {
  varnix_table* table;
  CHECK(varnix_table_new(VARNIX_LITERAL("table"), &table) == 0);
  return table;
}

static inline varnix_watcher* watch_all(varnix_table* table) {
  varnix_watcher* watcher;
  CHECK(varnix_table_watch_all(table, &watcher) == 0);
  return watcher;
}

static inline varnix_watcher_set* set_of(varnix_watcher* watcher) {
  varnix_watcher_set* set;
  CHECK(varnix_watcher_set_new(&watcher, 1, &set) == 0);
  return set;
}

static inline varnix_change* new_change(void) {
  varnix_change* change;
  CHECK(varnix_change_new(&change) == 0);
  return change;
}

static inline void set_row(varnix_table* table, const char* key, const char* value) {
  CHECK(varnix_table_set(table, key, strlen(key), value, strlen(value)) == 0);
}

static inline int is(const varnix_change* change, const char* key, const char* value) {
  return change->key_size == strlen(key) && strcmp(change->key, key) == 0 && change->value_size == strlen(value) &&
         strcmp(change->value, value) == 0;
}

#endif  // CHECK_H_
