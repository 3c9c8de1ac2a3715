// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include "net/Loop.h"

// How often something happens, over the last few seconds.
class Rate {
 public:
  void Count(TimePoint now);
  double PerSecond(TimePoint now) const;

 private:
  double per_second_ = 0;  // At last_.
  TimePoint last_{};
};
