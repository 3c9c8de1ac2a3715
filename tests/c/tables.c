// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Tables, watchers and sets of one process.
#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <stdint.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Check.h"

static void a_new_change_is_empty(void) {
  varnix_change* change = new_change();

  CHECK(is(change, "", ""));
  CHECK(change->watcher == NULL);

  varnix_change_free(change);
}

static void a_watcher_of_a_key_reports_that_key_alone(void) {
  varnix_table* table = new_table();
  varnix_change* change = new_change();
  varnix_watcher* watcher;
  CHECK(varnix_table_watch(table, VARNIX_LITERAL("speed"), &watcher) == 0);

  CHECK(varnix_watcher_take(watcher, change) == -EAGAIN);
  set_row(table, "heat", "81");
  CHECK(varnix_watcher_take(watcher, change) == -EAGAIN);
  set_row(table, "speed", "42");
  CHECK(varnix_watcher_take(watcher, change) == 0);

  CHECK(is(change, "speed", "42"));
  CHECK(change->watcher == watcher);
  CHECK(varnix_watcher_take(watcher, change) == -EAGAIN);
  CHECK(is(change, "speed", "42"));  // What finds nothing changes nothing.

  varnix_watcher_free(watcher);
  varnix_change_free(change);
  varnix_table_free(table);
}

static void keys_and_values_are_bytes_of_every_value_and_any_length(void) {
  varnix_table* table = new_table();
  varnix_watcher* watcher = watch_all(table);
  varnix_change* change = new_change();
  char every[256], *large = malloc(3000000);
  for (int i = 0; i < 256; ++i) every[i] = (char)i;
  memset(large, 'x', 3000000);

  CHECK(varnix_table_set(table, every, sizeof every, large, 3000000) == 0);
  CHECK(varnix_watcher_take(watcher, change) == 0);
  CHECK(change->key_size == sizeof every && memcmp(change->key, every, sizeof every) == 0);
  CHECK(change->value_size == 3000000 && memcmp(change->value, large, 3000000) == 0);
  CHECK(change->key[change->key_size] == '\0' && change->value[change->value_size] == '\0');

  CHECK(varnix_table_set(table, NULL, 0, NULL, 0) == 0);
  CHECK(varnix_watcher_take(watcher, change) == 0);
  CHECK(is(change, "", ""));

  free(large);
  varnix_watcher_free(watcher);
  varnix_change_free(change);
  varnix_table_free(table);
}

static void what_cannot_be_a_string_is_an_invalid_argument(void) {
  varnix_table *table = new_table(), *made = NULL;

  CHECK(varnix_table_set(table, NULL, 1, "", 0) == -EINVAL);
  CHECK(varnix_table_set(table, "", SIZE_MAX, "", 0) == -EINVAL);
  CHECK(varnix_table_new(NULL, 1, &made) == -EINVAL);
  CHECK(varnix_shared_table("d", 1, NULL, 1, &made) == -EINVAL);
  CHECK(made == NULL);

  varnix_table_free(table);
}

static void a_set_tells_which_watcher_had_the_change(void) {
  varnix_table *motor = new_table(), *alarms = new_table();
  varnix_change* change = new_change();
  varnix_watcher* watchers[] = {watch_all(motor), NULL, watch_all(alarms), NULL};
  watchers[3] = watchers[0];
  varnix_watcher_set* set;
  CHECK(varnix_watcher_set_new(watchers, 4, &set) == 0);

  CHECK(varnix_watcher_set_wait(set, 0, change) == -EAGAIN);
  set_row(alarms, "door", "open");
  CHECK(varnix_watcher_set_wait(set, -1, change) == 0);
  CHECK(is(change, "door", "open") && change->watcher == watchers[2]);
  set_row(motor, "speed", "42");
  CHECK(varnix_watcher_set_wait(set, 60000, change) == 0);
  CHECK(is(change, "speed", "42") && change->watcher == watchers[0]);
  CHECK(varnix_watcher_set_wait(set, 1, change) == -EAGAIN);

  varnix_watcher_set_free(set);
  varnix_watcher_free(watchers[0]);
  varnix_watcher_free(watchers[2]);
  varnix_change_free(change);
  varnix_table_free(motor);
  varnix_table_free(alarms);
}

static void handles_may_be_freed_in_any_order(void) {
  varnix_table* table = new_table();
  varnix_watcher* watcher = watch_all(table);
  varnix_watcher_set* set = set_of(watcher);
  varnix_change* change = new_change();
  set_row(table, "speed", "42");

  varnix_table_free(table);
  varnix_watcher_free(watcher);
  CHECK(varnix_watcher_set_wait(set, 0, change) == 0);
  CHECK(is(change, "speed", "42") && change->watcher == watcher);
  varnix_watcher_set_free(set);
  CHECK(is(change, "speed", "42"));  // The bytes are its own.
  varnix_change_free(change);
}

static void a_handle_that_a_set_reports_is_no_other_watcher_s_handle(void) {
  varnix_table* table = new_table();
  varnix_watcher* freed = watch_all(table);
  varnix_watcher_set* set = set_of(freed);
  varnix_watcher_free(freed);

  varnix_watcher* others[100];
  for (int i = 0; i < 100; ++i) CHECK((others[i] = watch_all(table)) != freed);

  for (int i = 0; i < 100; ++i) varnix_watcher_free(others[i]);
  varnix_watcher_set_free(set);
  varnix_table_free(table);
}

static void null_may_be_freed(void) {
  varnix_change_free(NULL);
  varnix_table_free(NULL);
  varnix_table_list_free(NULL);
  varnix_watcher_free(NULL);
  varnix_watcher_set_free(NULL);
  varnix_sharing_free(NULL);
  varnix_log_buffer_free(NULL);
}

static int is_readable(int descriptor) {
  struct pollfd asked = {descriptor, POLLIN, 0};
  const int count = poll(&asked, 1, 0);
  CHECK(count >= 0);
  return count;
}

static void a_descriptor_is_readable_while_a_change_is_pending(void) {
  varnix_table* table = new_table();
  varnix_watcher* watcher = watch_all(table);
  varnix_watcher_set* set = set_of(watcher);
  varnix_change* change = new_change();

  const int descriptor = varnix_watcher_set_descriptor(set);
  CHECK(descriptor >= 0);
  CHECK(varnix_watcher_set_descriptor(set) == descriptor);
  CHECK(!is_readable(descriptor));
  set_row(table, "speed", "42");
  CHECK(is_readable(descriptor));
  CHECK(varnix_watcher_set_wait(set, 0, change) == 0);
  CHECK(!is_readable(descriptor));

  varnix_watcher_set_free(set);
  CHECK(is_readable(descriptor) && poll(&(struct pollfd){descriptor, POLLIN, 0}, 1, 0) == 1);  // POLLNVAL: closed.
  varnix_watcher_free(watcher);
  varnix_change_free(change);
  varnix_table_free(table);
}

static void a_set_for_which_no_descriptor_is_to_be_had_can_have_one_later(void) {
  varnix_table* table = new_table();
  varnix_watcher* watcher = watch_all(table);
  varnix_watcher_set* set = set_of(watcher);
  struct rlimit before;
  CHECK(getrlimit(RLIMIT_NOFILE, &before) == 0);
  const struct rlimit none = {0, before.rlim_max};

  CHECK(setrlimit(RLIMIT_NOFILE, &none) == 0);
  const int result = varnix_watcher_set_descriptor(set);
  CHECK(setrlimit(RLIMIT_NOFILE, &before) == 0);
  CHECK(result == -EMFILE);
  set_row(table, "speed", "42");
  CHECK(is_readable(varnix_watcher_set_descriptor(set)));

  varnix_watcher_set_free(set);
  varnix_watcher_free(watcher);
  varnix_table_free(table);
}

static void* set_ten_thousand_rows(void* table) {
  for (int i = 1; i <= 10000; ++i) {
    char value[16];
    snprintf(value, sizeof value, "%d", i);
    set_row(table, "count", value);
  }
  return NULL;
}

static void a_thread_that_waits_sees_the_last_value_of_another(void) {
  varnix_table* table = new_table();
  varnix_watcher* watcher = watch_all(table);
  varnix_watcher_set* set = set_of(watcher);
  varnix_change* change = new_change();
  pthread_t writer;
  CHECK(pthread_create(&writer, NULL, set_ten_thousand_rows, table) == 0);

  int last = 0;
  while (last != 10000) {
    CHECK(varnix_watcher_set_wait(set, -1, change) == 0);
    CHECK(atoi(change->value) > last);
    last = atoi(change->value);
  }

  CHECK(pthread_join(writer, NULL) == 0);
  varnix_watcher_set_free(set);
  varnix_watcher_free(watcher);
  varnix_change_free(change);
  varnix_table_free(table);
}

static void a_forked_child_uses_its_copies(void) {
  varnix_table* table = new_table();
  varnix_watcher* watcher = watch_all(table);
  varnix_watcher_set* set = set_of(watcher);
  varnix_change* change = new_change();
  CHECK(varnix_watcher_set_descriptor(set) >= 0);

  const pid_t child = fork();
  CHECK(child >= 0);
  if (child == 0) {
    const int descriptor = varnix_watcher_set_descriptor(set);
    CHECK(descriptor >= 0 && !is_readable(descriptor));
    set_row(table, "speed", "42");
    CHECK(is_readable(descriptor));
    CHECK(varnix_watcher_set_wait(set, 0, change) == 0 && is(change, "speed", "42"));
    _exit(0);
  }
  int status;
  CHECK(waitpid(child, &status, 0) == child && status == 0);
  CHECK(varnix_watcher_set_wait(set, 0, change) == -EAGAIN);

  varnix_watcher_set_free(set);
  varnix_watcher_free(watcher);
  varnix_change_free(change);
  varnix_table_free(table);
}

static int count_tables(const char* wanted) {
  varnix_table_list* list;
  CHECK(varnix_local_tables(&list) == 0);
  int count = 0;
  for (size_t i = 0; i < varnix_table_list_size(list); ++i) {
    const char* name;
    size_t name_size;
    varnix_table* table;
    CHECK(varnix_table_list_get(list, i, &name, &name_size, &table) == 0);
    if (name_size == strlen(wanted) && strcmp(name, wanted) == 0) ++count;
    varnix_table_free(table);
  }
  varnix_table* none = NULL;
  CHECK(varnix_table_list_get(list, varnix_table_list_size(list), NULL, NULL, &none) == -EINVAL && none == NULL);
  varnix_table_list_free(list);
  return count;
}

static void the_list_of_tables_holds_those_that_are_alive(void) {
  varnix_table *one, *other;
  CHECK(varnix_table_new(VARNIX_LITERAL("listed"), &one) == 0);
  CHECK(varnix_table_new(VARNIX_LITERAL("listed"), &other) == 0);

  CHECK(count_tables("listed") == 2);
  varnix_table_free(one);
  CHECK(count_tables("listed") == 1);
  varnix_table_free(other);
  CHECK(count_tables("listed") == 0);
}

static void the_version_has_three_numbers(void) {
  int major, minor, patch, end = 0;
  CHECK(sscanf(varnix_version(), "%d.%d.%d%n", &major, &minor, &patch, &end) == 3);
  CHECK(varnix_version()[end] == '\0');
}

int main(void) {
  RUN(a_new_change_is_empty);
  RUN(a_watcher_of_a_key_reports_that_key_alone);
  RUN(keys_and_values_are_bytes_of_every_value_and_any_length);
  RUN(what_cannot_be_a_string_is_an_invalid_argument);
  RUN(a_set_tells_which_watcher_had_the_change);
  RUN(handles_may_be_freed_in_any_order);
  RUN(a_handle_that_a_set_reports_is_no_other_watcher_s_handle);
  RUN(null_may_be_freed);
  RUN(a_descriptor_is_readable_while_a_change_is_pending);
  RUN(a_set_for_which_no_descriptor_is_to_be_had_can_have_one_later);
  RUN(a_thread_that_waits_sees_the_last_value_of_another);
  RUN(a_forked_child_uses_its_copies);
  RUN(the_list_of_tables_holds_those_that_are_alive);
  RUN(the_version_has_three_numbers);
}
