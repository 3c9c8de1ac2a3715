// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <poll.h>

#include <chrono>
#include <vector>

// SIGINT, SIGTERM and SIGHUP ask the program to end. They are held back at all times but while the thread that made
// this waits in Poll(), or makes a call that LetIn covers; so no other thread ever gets one.
//
// Made once, before any other thread.
class Signals {
 public:
  Signals();

  static bool EndIsAskedFor();

  // As poll(). Returns early when a signal comes.
  static void Poll(std::vector<pollfd>& descriptors, std::chrono::milliseconds at_most);

  // While it lives, signals make the blocking system calls of this thread fail with EINTR; and so does time, once
  // after `limit` and every second from then on.
  class LetIn {
   public:
    explicit LetIn(std::chrono::seconds limit);
    ~LetIn();
    LetIn(const LetIn&) = delete;
    LetIn& operator=(const LetIn&) = delete;
  };
};
