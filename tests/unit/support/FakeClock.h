// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <chrono>
#include <string>

#include "support/HookedHere.h"

// The steady clock of this thread: it stands still at 0 until the test moves it.
class FakeClock {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  void Advance(std::chrono::nanoseconds by) { now_ += by; }
  TimePoint Now() const { return now_; }
  // Whole milliseconds since the start, as "60000ms".
  std::string Text() const {
    return std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(now_.time_since_epoch()).count()) +
           "ms";
  }

 private:
  TimePoint now_{};
  HookedHere<TimePoint()> hooked_{Hooks().now, [this] { return now_; }};
};
