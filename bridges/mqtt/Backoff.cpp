// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "Backoff.h"

#include <algorithm>

std::chrono::milliseconds Backoff::Next() {
  using Count = std::chrono::milliseconds::rep;
  const Count wait = std::uniform_int_distribution<Count>(longest_.count() / 2, longest_.count())(chance_);
  longest_ = std::min(2 * longest_, kLast);
  return std::chrono::milliseconds(wait);
}
