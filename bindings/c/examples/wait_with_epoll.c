// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// One thread waits by epoll for changes of a table and for lines on standard input, NAME VALUE, which it sets as rows.
// Ends with the input.
//
//   $ printf 'speed 42\n' | wait_with_epoll_c
//   speed is 42

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <unistd.h>
#include <varnix_c.h>

static int add(int epoll, int descriptor) {
  struct epoll_event event = {.events = EPOLLIN, .data.fd = descriptor};
  return epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event);
}

// Until there are no more; then the descriptor is not readable any longer.
static void print_changes(varnix_watcher_set* changes, varnix_change* change) {
  while (varnix_watcher_set_wait(changes, 0, change) == 0) {
    printf("%.*s is %.*s\n", (int)change->key_size, change->key, (int)change->value_size, change->value);
  }
  fflush(stdout);
}

static void set_row(varnix_table* table, const char* line) {
  char name[100], value[100];
  if (sscanf(line, "%99s %99s", name, value) == 2) varnix_table_set(table, name, strlen(name), value, strlen(value));
}

// Sets what the lines say that are complete; the rest is kept until more comes. 0 at the end of the input.
static int set_rows(varnix_table* table) {
  static char text[256];
  static size_t size;
  const ssize_t more = read(STDIN_FILENO, text + size, sizeof text - 1 - size);
  if (more > 0) size += (size_t)more;
  text[size] = '\0';
  char *line = text, *end;
  while ((end = strchr(line, '\n')) != NULL) {
    *end = '\0';
    set_row(table, line);
    line = end + 1;
  }
  if (more <= 0 || (line == text && size == sizeof text - 1)) {  // No end of a line will come, or there is no room.
    set_row(table, line);
    line = text + size;
  }
  size -= (size_t)(line - text);
  memmove(text, line, size);
  return more > 0;
}

int main(void) {
  varnix_table* table;
  varnix_watcher* watcher;
  varnix_watcher_set* changes;
  varnix_change* change;
  if (varnix_table_new(VARNIX_LITERAL("status"), &table) != 0 || varnix_table_watch_all(table, &watcher) != 0 ||
      varnix_watcher_set_new(&watcher, 1, &changes) != 0 || varnix_change_new(&change) != 0) {
    return 1;
  }
  const int descriptor = varnix_watcher_set_descriptor(changes);
  const int epoll = epoll_create1(EPOLL_CLOEXEC);
  if (descriptor < 0 || epoll < 0 || add(epoll, descriptor) != 0 || add(epoll, STDIN_FILENO) != 0) return 1;

  for (int more = 1; more;) {
    struct epoll_event event;
    if (epoll_wait(epoll, &event, 1, -1) < 0 && errno == EINTR) continue;
    if (event.data.fd == descriptor) {
      print_changes(changes, change);
    } else {
      more = set_rows(table);
    }
  }
  print_changes(changes, change);
  close(epoll);
  varnix_change_free(change);
  varnix_watcher_set_free(changes);
  varnix_watcher_free(watcher);
  varnix_table_free(table);
}
