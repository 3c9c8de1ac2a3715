// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "commands/Pace.h"

#include <algorithm>

TimePoint Pace::DueTime(std::optional<std::int64_t> time_us) {
  if (speed_ == 0 || !time_us) return last_due_;
  const double gap_us = static_cast<double>(*time_us - last_time_us_.value_or(*time_us)) / speed_;
  last_time_us_ = time_us;
  const double most_us = std::chrono::duration<double, std::micro>(kMost).count();
  const std::chrono::duration<double, std::micro> gap(std::clamp(gap_us, 0.0, most_us));
  last_due_ = std::min(last_due_ + std::chrono::duration_cast<Clock::duration>(gap), latest_);
  return last_due_;
}
