// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <chrono>
#include <random>

// How long to wait before the next attempt: each wait is chosen by chance from a range that doubles, from 1 to 2
// seconds up to 30 to 60, so that thousands of bridges do not come back to a broker at one moment.
class Backoff {
 public:
  Backoff() : chance_(std::random_device()()) {}

  std::chrono::milliseconds Next();
  void Reset() { longest_ = kFirst; }

 private:
  static constexpr std::chrono::milliseconds kFirst{2'000};
  static constexpr std::chrono::milliseconds kLast{60'000};

  std::chrono::milliseconds longest_ = kFirst;
  std::minstd_rand chance_;
};
