// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <poll.h>

#include <chrono>
#include <vector>

using TimePoint = std::chrono::steady_clock::time_point;

// The steady clock of the system without the time for which a reader of our output has kept us waiting: that is no time
// that others had.
class Clock {
 public:
  using duration = std::chrono::steady_clock::duration;

  static TimePoint now() { return std::chrono::steady_clock::now() - left_out_; }

  // Leaves out what has passed since then.
  static void TurnBackTo(TimePoint earlier) { left_out_ += now() - earlier; }

 private:
  static inline duration left_out_{};
};

class Loop;

// Something that waits for a descriptor, for a point in time, or for both. It is waited for as long as it lives.
class Waiter {
 public:
  explicit Waiter(Loop& loop);
  virtual ~Waiter();
  Waiter(const Waiter&) = delete;
  Waiter& operator=(const Waiter&) = delete;

  // The descriptor, -1 for none, and the events that are waited for. Errors and ends are always reported.
  virtual pollfd Awaited() const = 0;
  virtual void OnReady(short events) = 0;

  virtual TimePoint Deadline() const { return TimePoint::max(); }
  virtual void OnDeadline() {}

 private:
  Loop& loop_;
};

// Runs everything on one thread. Waiters may come and go while one of them is called.
class Loop {
 public:
  // Waits until something is ready or a deadline has passed, `until` at the latest, and calls those whom it concerns.
  void Turn(TimePoint until);

 private:
  friend Waiter;

  int WaitingTime(TimePoint until) const;
  void Dispatch(std::size_t index, short events);

  std::vector<Waiter*> waiters_;  // Null in place of those that are gone, until the next turn.
  std::vector<pollfd> polled_;    // Of those that wait for a descriptor, in the order of waiters_.
  std::vector<bool> is_polled_;   // Whether each of waiters_ has one of polled_.
};
