// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

// Which call of a kind fails in a thread.
struct Countdown {
  long left = 0;  // 0: none fails.
  bool has_failed = false;

  // Is asked at each call.
  bool FailsNow() {
    if (left == 0 || --left > 0) return false;
    return has_failed = true;
  }
};

// Makes the n-th call of the kind, counted from 1, fail while this object lives.
class CountedFailure {
 public:
  CountedFailure(Countdown& countdown, long n) : countdown_(countdown) { countdown_ = {n, false}; }
  ~CountedFailure() { countdown_.left = 0; }
  CountedFailure(const CountedFailure&) = delete;
  CountedFailure& operator=(const CountedFailure&) = delete;

  bool HasFailed() const { return countdown_.has_failed; }

 private:
  Countdown& countdown_;
};
