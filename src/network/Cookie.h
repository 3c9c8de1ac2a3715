// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <string>
#include <thread>

#include "threads/FileDescriptor.h"

// What stands behind the stdio stream of a connected socket. Every wait for the socket also watches the done pipe of
// the server, so that one byte there ends all reads and writes of all its streams, now and later.
//
// Threads: a cookie and its stream belong to one thread. But the program's fflush(nullptr) visits every stream of the
// process and waits for the lock of each. So our thread holds the lock for each record (see StreamLock) and lends it
// out while it waits for the peer (see Poll). Between two records, rows may stand in the buffer. A flush by the program
// sends as much of them as the peer takes at once, and our thread sends the rest.
// Ownership: owns neither the socket nor the stream.
struct Cookie {
  Cookie(const FileDescriptor& connected_socket, int done_pipe)
      : socket(connected_socket), done_descriptor(done_pipe) {}

  // stdio's functions for the stream; `cookie` is a Cookie. Read returns the number of bytes, 0 at the end of the
  // stream, -1 on failure or abort. Write takes all bytes and returns their number, because glibc drops the rest of a
  // short write; it returns 0 on failure or abort.
  static ssize_t Read(void* cookie, char* buffer, std::size_t size);
  static ssize_t Write(void* cookie, const char* buffer, std::size_t size);

  const FileDescriptor& socket;
  const int done_descriptor;  // Polled, never read.
  bool aborted = false;       // The done pipe was readable. Never cleared.

  // Logs the failure of a read within a record, once the record's lock is released: the log hook may flush or open
  // streams, and would wait for that lock; and what it throws must not cross the frames of stdio.
  void LogReadError();

  // Sends what a flush by the program has left. Under the StreamLock of the caller. False on failure or abort.
  bool SendUnsent();

 private:
  friend class StreamLock;

  bool BelongsToParent() const { return !socket.IsOpen(); }
  bool IsFlushOfTheProgram() const;
  bool Send(const char* bytes, std::size_t size);
  bool SendWithoutWaiting(const char* bytes, std::size_t size);
  ssize_t SendOnce(const char* bytes, std::size_t size);
  bool WaitFor(short events, const char* tag, const char* format);
  int Poll(struct pollfd* entries);
  [[noreturn]] void EndProcess(const char* tag, const char* format);

  const std::thread::id thread_ = std::this_thread::get_id();
  int read_error_ = 0;  // An errno that has not been logged yet.
  // Flushes by the program look at these. They change only under the stream's lock. No sanitizer sees that lock: so
  // they are atomic.
  std::atomic<FILE*> locked_stream_{nullptr};  // Set while our thread is inside a record, and may lend the lock.
  // Our thread waits, or ends the process: a call that comes now is the program's.
  std::atomic<bool> lock_lent_{false};
  std::atomic<bool> has_unsent_{false};
  std::string unsent_;  // What a flush by the program could not send. Read after `has_unsent_`, changed before it.
};
