// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Varnix for C: key/value tables that the processes of a device, and the devices of one local network, share.
//
//   varnix_table* status;
//   varnix_watcher* watcher;
//   varnix_watcher_set* changes;
//   varnix_change* change;
//   if (varnix_shared_table(VARNIX_LITERAL("plant"), VARNIX_LITERAL("status"), &status) != 0 ||
//       varnix_table_watch_all(status, &watcher) != 0 ||
//       varnix_watcher_set_new(&watcher, 1, &changes) != 0 || varnix_change_new(&change) != 0) return 1;
//   varnix_table_set(status, VARNIX_LITERAL("temperature"), VARNIX_LITERAL("81"));
//   while (varnix_watcher_set_wait(changes, -1, change) == 0) {
//     printf("%.*s is %.*s\n", (int)change->key_size, change->key, (int)change->value_size, change->value);
//   }
//
// This is Varnix.h for those who do not write C++, and nothing more. Each function names the one that it stands for;
// what Varnix.h says of that one, and in its introduction, holds here: threads, waiting, limits, exit, fork, exec.
// What is different:
//
// Handles: a function that makes a handle stores it through its last argument, and you own it. Each kind has one
//   function that frees it, which takes NULL as well; no other takes NULL unless it says so. Handles may be
//   freed in any order: a watcher keeps its table alive, a set its watchers. Several threads may use a handle at the
//   same time, unless it says otherwise; it is freed when no thread uses it any more.
// Bytes: names, keys and values are a pointer and a length, and may hold zeros. NULL with length 0 is the empty string.
//   What is passed in is copied. What is handed out ends in a zero that its length does not count.
// Results: 0, or a negative errno. A handle or a struct that is an output is then left as it was.
//   -ENOMEM   there is no memory
//   -EAGAIN   there is nothing to take, or nothing came in time; varnix_share: there is no thread to be had
//   -ENOENT   varnix_get_sharing: the database is not shared
//   -EINVAL   NULL with a length other than 0, or a length that no string can have; varnix_table_list_get: the index is
//             beyond the end; varnix_log_buffer_new: no buffer has this capacity
//   -EMFILE, -ENFILE   varnix_watcher_set_descriptor: there is no descriptor to be had
//   -EIO      anything else that Varnix.h would throw; a std::system_error, of a failing lock for one, gives its own
//   So no exception leaves a function. Functions without a result cannot fail.
// Cancelling: a thread must not be cancelled by pthread_cancel() while it is in a function of this library.

#ifndef VARNIX_C_H_
#define VARNIX_C_H_

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VARNIX_C_EXPORT __attribute__((visibility("default")))

// The two arguments, pointer and length, for a string literal.
#define VARNIX_LITERAL(text) "" text, (sizeof(text) - 1)

typedef struct varnix_table varnix_table;
typedef struct varnix_table_list varnix_table_list;
typedef struct varnix_watcher varnix_watcher;
typedef struct varnix_watcher_set varnix_watcher_set;
typedef struct varnix_log_buffer varnix_log_buffer;

// The version of this library, "1.0.0". (VARNIX_VERSION_MAJOR, VARNIX_VERSION_MINOR, VARNIX_VERSION_PATCH)
VARNIX_C_EXPORT const char* varnix_version(void);

// Changes

// A row that has changed. It is made and freed by the library, read by you, and used for one call after the other.
// Threads: by one at a time; each thread that takes changes needs one of its own.
typedef struct varnix_change {
  const char* key;  // Both are there until the change is used again, or freed.
  size_t key_size;
  const char* value;
  size_t value_size;
  // Who reported it: the handle that the set was made with. If you have freed it, it is there to be compared only.
  varnix_watcher* watcher;
} varnix_change;

// An empty change, to be filled by the functions that take one.
VARNIX_C_EXPORT int varnix_change_new(varnix_change** change);
VARNIX_C_EXPORT void varnix_change_free(varnix_change* change);

// Tables

// A new, empty table of this process alone. (MakeTable)
VARNIX_C_EXPORT int varnix_table_new(const char* name, size_t name_size, varnix_table** table);

// A table of a database. All handles of the same database and table are handles of one table. (MakeSharedTable)
VARNIX_C_EXPORT int varnix_shared_table(const char* database, size_t database_size, const char* name, size_t name_size,
                                        varnix_table** table);

// The table that lists the databases. (GetDatabaseTable)
VARNIX_C_EXPORT int varnix_database_table(varnix_table** table);

// The table that lists the tables of a database. (GetTableTable)
VARNIX_C_EXPORT int varnix_table_table(const char* database, size_t database_size, varnix_table** table);

// The table of the members from whom rows of the database are received. (GetPeerTable)
VARNIX_C_EXPORT int varnix_peer_table(const char* database, size_t database_size, varnix_table** table);

VARNIX_C_EXPORT void varnix_table_free(varnix_table* table);

// Inserts a row or replaces its value, and wakes those who wait for it. (Table::Set)
VARNIX_C_EXPORT int varnix_table_set(varnix_table* table, const char* key, size_t key_size, const char* value,
                                     size_t value_size);

// A watcher of one key. (Table::Watch)
VARNIX_C_EXPORT int varnix_table_watch(varnix_table* table, const char* key, size_t key_size, varnix_watcher** watcher);

// A watcher of every row. (Table::WatchAll)
VARNIX_C_EXPORT int varnix_table_watch_all(varnix_table* table, varnix_watcher** watcher);

// The tables of this process that are alive at this moment; the list keeps them alive. (GetLocalTables)
VARNIX_C_EXPORT int varnix_local_tables(varnix_table_list** list);
VARNIX_C_EXPORT size_t varnix_table_list_size(const varnix_table_list* list);
// `name` is there until the list is freed. `table` is a handle of your own, as from any other function.
VARNIX_C_EXPORT int varnix_table_list_get(const varnix_table_list* list, size_t index, const char** name,
                                          size_t* name_size, varnix_table** table);
VARNIX_C_EXPORT void varnix_table_list_free(varnix_table_list* list);

// Watchers

// Takes the next change, or returns -EAGAIN when none is pending. Never sleeps. (Watcher::GetChanges)
VARNIX_C_EXPORT int varnix_watcher_take(varnix_watcher* watcher, varnix_change* change);

VARNIX_C_EXPORT void varnix_watcher_free(varnix_watcher* watcher);

// A set of `count` watchers, which it keeps alive; NULL among them is left out, and one given twice is one member. The
// handles stay yours. (MakeWatcherSet)
VARNIX_C_EXPORT int varnix_watcher_set_new(varnix_watcher* const* watchers, size_t count, varnix_watcher_set** set);

// Sleeps until a member has a change, and takes it; for `timeout_ms` milliseconds at most. -1 is for ever, 0 for not
// at all. Returns -EAGAIN when nothing came in time. A signal does not end it. (WatcherSet::Wait,
// WatcherSet::WaitUntil)
VARNIX_C_EXPORT int varnix_watcher_set_wait(varnix_watcher_set* set, int timeout_ms, varnix_change* change);

// For poll(), select() and epoll: a descriptor that is readable, level-triggered, exactly while a change is pending in
// the set; when it is, take changes with timeout 0 until -EAGAIN. It belongs to the set, which closes it. Returns the
// descriptor or a negative errno. A forked child calls it again for one of its own. (GetDescriptor)
VARNIX_C_EXPORT int varnix_watcher_set_descriptor(varnix_watcher_set* set);

VARNIX_C_EXPORT void varnix_watcher_set_free(varnix_watcher_set* set);

// Sharing

// How a database is shared. As an argument it is yours; as a result it is made and freed by the library.
typedef struct varnix_sharing {
  const char* group;
  size_t group_size;
  const char* device;
  size_t device_size;
  const char* process;
  size_t process_size;
  uint32_t broadcast_address;  // In network byte order; 0 asks for 255.255.255.255, which is what comes back.
} varnix_sharing;

// Shares the database with the members of a group, from now on. (SetSharingGroup)
VARNIX_C_EXPORT int varnix_share(const char* database, size_t database_size, const varnix_sharing* sharing);

// Ends the sharing of the database, if it is shared. (StopSharing)
VARNIX_C_EXPORT int varnix_stop_sharing(const char* database, size_t database_size);

// How the database is shared; -ENOENT when it is not. (GetSharingGroup)
VARNIX_C_EXPORT int varnix_get_sharing(const char* database, size_t database_size, varnix_sharing** sharing);
VARNIX_C_EXPORT void varnix_sharing_free(varnix_sharing* sharing);

// Tells every shared database that the network has changed. (NetworkChanged)
VARNIX_C_EXPORT int varnix_network_changed(void);

// Logging

// Gets a message of the library: its level, numbered as those of syslog, the tag of its place, and its text, formatted
// and without a line end, cut to 1,023 bytes. What Varnix.h says of hooks holds: it should not wait, and must not call
// this library, exit(), or fork() without exec. `user` is what varnix_set_log_function was given.
typedef void (*varnix_log_function)(int level, const char* tag, const char* text, void* user);

// Replaces the log function. Messages whose level is above `max_level` are dropped before they are formatted: 3 is for
// errors alone, 7 for all. NULL silences the library. When this returns, no call of the old function is running.
// (SetLoggingFunction)
VARNIX_C_EXPORT int varnix_set_log_function(varnix_log_function function, int max_level, void* user);

// A ring of messages, for programs whose code cannot run inside a call of the library: interpreters, for instance. The
// library writes messages into it and never waits for room: when it is full, a new message is dropped, and counted.
//
// Threads: one at a time takes messages, or waits for them.
// Fork: the child has a copy that it may go on with, and in it what its parent had not taken. If a thread of the parent
//   was just taking a message, the child may get that one, too.

// A message as it is taken. It is there until the next one is taken. One of level 4 with an empty tag and text stands
// for none: it is there to tell of those that were dropped when no other follows.
typedef struct varnix_log_message {
  int level;
  const char* tag;
  const char* text;  // Cut to 1,023 bytes.
  size_t dropped;    // So many have been dropped since the message that was taken before, for want of room.
} varnix_log_message;

// A ring with room for `capacity` messages (at least 1; each takes about a kilobyte).
VARNIX_C_EXPORT int varnix_log_buffer_new(size_t capacity, varnix_log_buffer** buffer);

// Puts it in the place of the log function: from now on messages up to `max_level` go there.
VARNIX_C_EXPORT int varnix_log_buffer_install(varnix_log_buffer* buffer, int max_level);

// Takes the oldest message, or returns -EAGAIN when there is none. Never sleeps.
VARNIX_C_EXPORT int varnix_log_buffer_take(varnix_log_buffer* buffer, varnix_log_message* message);

// Sleeps until there is a message that was not there when it was called last, or varnix_log_buffer_wake() is called.
// May also return early: take until -EAGAIN, and wait again.
VARNIX_C_EXPORT void varnix_log_buffer_wait(varnix_log_buffer* buffer);

// Ends one varnix_log_buffer_wait(), the one that sleeps or the next. From any thread.
VARNIX_C_EXPORT void varnix_log_buffer_wake(varnix_log_buffer* buffer);

// If it is installed still, messages are dropped from now on, until another function or buffer takes its place.
VARNIX_C_EXPORT void varnix_log_buffer_free(varnix_log_buffer* buffer);

#ifdef __cplusplus
}
#endif

#endif  // VARNIX_C_H_
