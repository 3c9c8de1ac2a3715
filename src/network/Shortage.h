// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <chrono>

// A lack of threads, which neighbours can cause and end as often as they like. It is worth one line in the log, and
// all of them together at most one in 100 ms.
//
// Threads: the caller guards it.
class Shortage {
 public:
  // True when the refusal is to be logged.
  bool NoteRefusal() {
    const Clock::time_point now = Clock::now();
    if (logged_ || now < silent_until_) return false;
    logged_ = true;
    silent_until_ = now + kPause;
    return true;
  }
  void End() { logged_ = false; }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds kPause{100};

  bool logged_ = false;
  Clock::time_point silent_until_ = Clock::time_point::min();
};
