// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "top/Rate.h"

#include <cmath>

namespace {

constexpr double kSeconds = 3;  // What is older counts for little.

}  // namespace

void Rate::Count(TimePoint now) {
  per_second_ = PerSecond(now) + 1 / kSeconds;
  last_ = now;
}

double Rate::PerSecond(TimePoint now) const {
  if (per_second_ == 0) return 0;
  return per_second_ * std::exp(-std::chrono::duration<double>(now - last_).count() / kSeconds);
}
