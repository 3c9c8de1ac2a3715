// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstdio>

#include "network/Cookie.h"
#include "threads/FileDescriptor.h"

// A connected socket with its stdio stream.
//
// Threads: one; see Cookie for what the program may do to the stream meanwhile.
// Ownership: owns the socket, the cookie and the stream. A forked child, which does not have the thread, never destroys
// its copy: stdio flushes the stream at the child's exit and needs the cookie. So it is never made on a stack.
class SocketStream {
 public:
  SocketStream(FileDescriptor socket, int done_descriptor);
  // Closes the stream, which sends what is in its buffer, and then the socket.
  ~SocketStream();
  SocketStream(const SocketStream&) = delete;
  SocketStream& operator=(const SocketStream&) = delete;

  // Makes the stream, in mode "r+" with stdio's own buffering. False, with errno, on failure.
  bool Open();

  int Socket() const { return socket_.Get(); }
  FILE* File() { return file_; }
  Cookie& GetCookie() { return cookie_; }

 private:
  FileDescriptor socket_;
  Cookie cookie_;
  FILE* file_ = nullptr;
};

// Locks a stream for one record, so that a flush by the program never meets half of one.
class StreamLock {
 public:
  explicit StreamLock(SocketStream& stream);
  ~StreamLock();
  StreamLock(const StreamLock&) = delete;
  StreamLock& operator=(const StreamLock&) = delete;

 private:
  SocketStream& stream_;
};
