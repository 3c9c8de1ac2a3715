// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <semaphore.h>

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <memory>

#include "varnix_c.h"

// A ring between the log hook, which writes, and one reader. It has no lock, so neither waits for the other, and a
// forked child finds it whole.
//
// Threads: Write() by one at a time, as hooks are called; Take() and Wait() by one at a time; Wake() by any.
class LogBuffer {
 public:
  explicit LogBuffer(std::size_t capacity);
  ~LogBuffer() { sem_destroy(&news_); }
  LogBuffer(const LogBuffer&) = delete;
  LogBuffer& operator=(const LogBuffer&) = delete;

  void Write(int level, const char* tag, const char* format, va_list arguments);
  // Whether there was a message. It stays in its place until the next Take().
  bool Take(varnix_log_message* message);
  void Wait();
  void Wake();

 private:
  struct Slot {
    int level;
    char tag[64];
    char text[1024];
  };

  std::size_t After(std::size_t slot) const { return slot + 1 == slots_count_ ? 0 : slot + 1; }

  const std::size_t slots_count_;  // One is always empty: so a full ring differs from an empty one.
  const std::unique_ptr<Slot[]> slots_;
  std::atomic<std::size_t> end_{0};    // Where the writer writes next.
  std::atomic<std::size_t> begin_{0};  // The oldest message, or the one that is lent.
  std::atomic<std::size_t> dropped_{0};
  bool lent_ = false;               // The reader's.
  std::atomic<bool> woken_{false};  // Since the reader slept last: so a thousand messages wake it once.
  sem_t news_;
};
