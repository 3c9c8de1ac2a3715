// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gtest/gtest.h>

#include <set>

#include "Backoff.h"

namespace {

using std::chrono::milliseconds;

TEST(Backoff, DoublesFromOneSecondToSixty) {
  Backoff backoff;
  for (const int longest : {2'000, 4'000, 8'000, 16'000, 32'000, 60'000, 60'000}) {
    const milliseconds wait = backoff.Next();
    EXPECT_GE(wait.count(), longest / 2);
    EXPECT_LE(wait.count(), longest);
  }
  backoff.Reset();
  EXPECT_LE(backoff.Next(), milliseconds(2'000));
}

TEST(Backoff, DiffersFromBridgeToBridge) {
  std::set<milliseconds> waits;
  for (int bridge = 0; bridge < 100; ++bridge) waits.insert(Backoff().Next());
  EXPECT_GT(waits.size(), 50U);
}

}  // namespace
