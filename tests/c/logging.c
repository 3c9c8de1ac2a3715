// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// The log function, and the ring that takes its place.
#include <errno.h>
#include <pthread.h>

#include "Check.h"

struct seen {
  int count;
  int highest_level;
  char last[1200];
};

static void note(int level, const char* tag, const char* text, void* user) {
  struct seen* seen = user;
  ++seen->count;
  if (level > seen->highest_level) seen->highest_level = level;
  snprintf(seen->last, sizeof seen->last, "%s %s", tag, text);
}

static void make_shared_table(const char* name, size_t size) {
  varnix_table* table;
  CHECK(varnix_shared_table("logged", 6, name, size, &table) == 0);
  varnix_table_free(table);
}

static void the_log_function_gets_formatted_messages(void) {
  struct seen seen = {0};
  CHECK(varnix_set_log_function(note, 7, &seen) == 0);
  make_shared_table("status", 6);

  CHECK(strncmp(seen.last, "mkshrdtbl MakeSharedTable: logged:status -> 0x", 46) == 0);
  CHECK(seen.highest_level == 7);
  CHECK(varnix_set_log_function(NULL, 7, NULL) == 0);
}

static void messages_above_the_level_are_dropped(void) {
  struct seen seen = {0};
  CHECK(varnix_set_log_function(note, 6, &seen) == 0);
  make_shared_table("status", 6);
  CHECK(seen.count == 0);

  CHECK(varnix_set_log_function(NULL, 7, NULL) == 0);
}

static void long_messages_are_cut(void) {
  struct seen seen = {0};
  char name[5000];
  memset(name, 'x', sizeof name);
  CHECK(varnix_set_log_function(note, 7, &seen) == 0);
  make_shared_table(name, sizeof name);

  CHECK(strlen(seen.last) == strlen("mkshrdtbl ") + 1023);
  CHECK(varnix_set_log_function(NULL, 7, NULL) == 0);
}

static void without_a_function_nothing_is_reported(void) {
  struct seen seen = {0};
  CHECK(varnix_set_log_function(note, 7, &seen) == 0);
  CHECK(varnix_set_log_function(NULL, 7, NULL) == 0);
  make_shared_table("status", 6);

  CHECK(seen.count == 0);
}

static varnix_log_buffer* new_buffer(size_t capacity) {
  varnix_log_buffer* buffer;
  CHECK(varnix_log_buffer_new(capacity, &buffer) == 0);
  CHECK(varnix_log_buffer_install(buffer, 7) == 0);
  return buffer;
}

static void a_buffer_hands_out_messages_in_their_order(void) {
  varnix_log_buffer* buffer = new_buffer(100);
  varnix_log_message message;
  CHECK(varnix_log_buffer_take(buffer, &message) == -EAGAIN);
  varnix_table* table = new_table();
  make_shared_table("one", 3);
  make_shared_table("two", 3);

  int found = 0;
  while (varnix_log_buffer_take(buffer, &message) == 0) {
    CHECK(message.dropped == 0);
    if (strcmp(message.tag, "mkshrdtbl") != 0) continue;
    CHECK(message.level == 7);
    CHECK(strstr(message.text, found == 0 ? "logged:one" : "logged:two") != NULL);
    ++found;
  }
  CHECK(found == 2);

  varnix_table_free(table);
  varnix_log_buffer_free(buffer);
}

static void a_full_buffer_drops_new_messages_and_counts_them(void) {
  varnix_table* table = new_table();
  varnix_log_buffer* buffer = new_buffer(2);
  for (int i = 0; i < 5; ++i) set_row(table, "key", i % 2 == 0 ? "even" : "odd");  // A message each.

  varnix_log_message message;
  CHECK(varnix_log_buffer_take(buffer, &message) == 0 && message.dropped == 3);
  set_row(table, "key", "no room yet: the message is lent");
  CHECK(varnix_log_buffer_take(buffer, &message) == 0 && message.dropped == 1);
  set_row(table, "key", "room again");
  CHECK(varnix_log_buffer_take(buffer, &message) == 0 && message.dropped == 0);
  CHECK(varnix_log_buffer_take(buffer, &message) == -EAGAIN);

  varnix_log_buffer_free(buffer);
  set_row(table, "key", "to nobody");
  varnix_table_free(table);
}

static void what_is_dropped_after_the_last_message_is_told_by_one_of_its_own(void) {
  varnix_table* table = new_table();
  varnix_log_buffer* buffer = new_buffer(1);
  varnix_log_message message;
  set_row(table, "key", "value");
  varnix_log_buffer_wait(buffer);
  CHECK(varnix_log_buffer_take(buffer, &message) == 0 && message.dropped == 0);
  for (int i = 0; i < 3; ++i) set_row(table, "key", "no room: the message is lent");

  varnix_log_buffer_wait(buffer);
  CHECK(varnix_log_buffer_take(buffer, &message) == 0);
  CHECK(message.dropped == 3 && message.level == 4 && strcmp(message.tag, "") == 0 && strcmp(message.text, "") == 0);
  CHECK(varnix_log_buffer_take(buffer, &message) == -EAGAIN);

  varnix_log_buffer_free(buffer);
  varnix_table_free(table);
}

static void a_buffer_without_room_cannot_be_made(void) {
  varnix_log_buffer* buffer = NULL;
  CHECK(varnix_log_buffer_new(0, &buffer) == -EINVAL);
  CHECK(varnix_log_buffer_new((size_t)-1, &buffer) == -EINVAL);
  CHECK(varnix_log_buffer_new((size_t)-2, &buffer) == -ENOMEM);
  CHECK(buffer == NULL);
}

enum { ROWS = 20000 };

struct writer {
  varnix_table* table;
  varnix_log_buffer* buffer;
  int finished;
};

static void* set_rows(void* argument) {
  struct writer* writer = argument;
  for (int i = 0; i < ROWS; ++i) set_row(writer->table, "key", i % 2 == 0 ? "even" : "odd");  // A message each.
  __atomic_store_n(&writer->finished, 1, __ATOMIC_SEQ_CST);
  varnix_log_buffer_wake(writer->buffer);
  return NULL;
}

static size_t take_all(varnix_log_buffer* buffer) {
  size_t count = 0;
  for (varnix_log_message message; varnix_log_buffer_take(buffer, &message) == 0;) {
    count += (message.tag[0] != '\0') + message.dropped;
  }
  return count;
}

static void a_reader_that_waits_gets_or_counts_every_message(void) {
  struct writer writer = {new_table(), new_buffer(100), 0};
  pthread_t thread;
  CHECK(pthread_create(&thread, NULL, set_rows, &writer) == 0);

  size_t count = 0;
  while (!__atomic_load_n(&writer.finished, __ATOMIC_SEQ_CST)) {
    varnix_log_buffer_wait(writer.buffer);
    count += take_all(writer.buffer);
  }
  CHECK(pthread_join(thread, NULL) == 0);
  count += take_all(writer.buffer);

  CHECK(count == ROWS);
  varnix_log_buffer_free(writer.buffer);
  varnix_table_free(writer.table);
}

int main(void) {
  RUN(the_log_function_gets_formatted_messages);
  RUN(messages_above_the_level_are_dropped);
  RUN(long_messages_are_cut);
  RUN(without_a_function_nothing_is_reported);
  RUN(a_buffer_hands_out_messages_in_their_order);
  RUN(a_full_buffer_drops_new_messages_and_counts_them);
  RUN(what_is_dropped_after_the_last_message_is_told_by_one_of_its_own);
  RUN(a_buffer_without_room_cannot_be_made);
  RUN(a_reader_that_waits_gets_or_counts_every_message);
}
