// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <chrono>
#include <functional>

#include "threads/FileDescriptor.h"

struct Member;

// Accepts the connections of peers. If no thread can be started for one, it tries again for a while and then closes it.
//
// Threads: one, the server's accept thread.
// Errors: a poll that fails is logged and ends the process; all else is logged at most.
class Acceptor {
 public:
  // Starts a thread that serves a peer, whose address is in host byte order: takes over the socket and returns 0, or
  // returns an error number, with the socket left as it is.
  using Incoming = std::function<int(FileDescriptor& socket, unsigned address)>;

  Acceptor(const Member& member, int listener, Incoming incoming);

  // Returns when the server stops.
  void Run();

 private:
  void AcceptConnection();
  void Serve(FileDescriptor socket, unsigned address);
  bool StopsWithin(std::chrono::milliseconds time) const;

  const Member& member_;
  const int listener_;
  const Incoming incoming_;
};
