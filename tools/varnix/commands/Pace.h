// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstdint>
#include <optional>

#include "net/Loop.h"

// When the rows of a recording are due, the first of them at the start.
class Pace {
 public:
  // So many times as fast as it was recorded; 0: at once.
  Pace(TimePoint start, double speed) : speed_(speed), last_due_(start), latest_(start + kMost) {}

  // As long after the row before it as it was recorded; where the clock was set back, at once.
  TimePoint DueTime(std::optional<std::int64_t> time_us);

 private:
  static constexpr std::chrono::hours kMost{24 * 365 * 100};  // What is later would leave the range of the clock.

  const double speed_;
  TimePoint last_due_;
  const TimePoint latest_;
  std::optional<std::int64_t> last_time_us_;  // Of the last row that had one.
};
