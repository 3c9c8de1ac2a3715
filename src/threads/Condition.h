// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <new>

#include "threads/Fork.h"

// A std::condition_variable that works in a forked child, whoever was waiting on it at the fork. The child's copy of a
// plain one counts the waiting threads of the parent for ever: they take notifications away from the child's own
// threads, and the destructor waits for them. So the child makes itself a new one, in the place of the old.
//
// Threads: any that holds the mutex that is waited with. A fork must not happen while another thread holds it.
class Condition {
 public:
  Condition() : condition() {}
  ~Condition() {
    if (IsOfThisProcess()) condition.~condition_variable();
  }
  Condition(const Condition&) = delete;
  Condition& operator=(const Condition&) = delete;

  void NotifyOne() { Current().notify_one(); }
  void Wait(std::unique_lock<std::mutex>& lock) { Current().wait(lock); }
  void WaitUntil(std::unique_lock<std::mutex>& lock, std::chrono::steady_clock::time_point deadline) {
    Current().wait_until(lock, deadline);
  }

 private:
  bool IsOfThisProcess() const { return generation_ == fork_generation.load(std::memory_order_relaxed); }

  std::condition_variable& Current() {
    if (!IsOfThisProcess()) {
      // The old one is not destroyed: that would wait for the parent's threads.
      new (&condition) std::condition_variable;
      generation_ = fork_generation;
    }
    return condition;
  }

  union {  // Not destroyed by itself.
    std::condition_variable condition;
  };
  unsigned generation_ = fork_generation;
};
