// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <Varnix.h>

#include <memory>
#include <string>

#include "logging/Log.h"
#include "names/CombinedKey.h"

class LocalTable;
class PeerTable;

// Who we are in a group. A table server fills it in before it starts its threads; they only read it.
struct Member {
  std::string uid;  // CombinedKey(device, process).
  std::string database;
  std::string group;
  std::shared_ptr<Varnix::Table> receive_table;  // Gets the rows that peers send.
  std::shared_ptr<Varnix::Table> send_table;     // Its rows are sent to every peer that connects.
  std::shared_ptr<LocalTable> done_table;        // Gets a row when the server stops; the threads that send watch it.
  PeerTable* peer_table;                         // Shows from whom rows are received. The database's.
  int done_descriptor = -1;                      // Readable from the moment the server stops. Polled, never read.
  unsigned short listen_port = 0;                // Host byte order.
  const void* server = nullptr;                  // Only printed: it tells the servers of a log apart.
};

// Logs a line that begins with the name of the table server, as all of them do. What follows the tag is the format of
// the rest and its arguments; compilers check them as those of printf().
#define VARNIX_LOG_OF(member, level, tag, ...)                \
  (static_cast<void>(sizeof(CheckedAsOfPrintf(__VA_ARGS__))), \
   LogOf(member, level, tag, "TableServer for %.*s::%s::%s(%p)" __VA_ARGS__))

// Never called.
int CheckedAsOfPrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

template <class... Arguments>
void LogOf(const Member& member, Varnix::LogLevel level, const char* tag, const char* format, Arguments... arguments) {
  const PrintableKey uid(member.uid);
  Log(level, tag, format, uid.name_length, uid.name, uid.key, member.database.c_str(), member.server, arguments...);
}
