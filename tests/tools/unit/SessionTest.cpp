// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// How long a command looks for members.
#include <gtest/gtest.h>

#include "commands/Session.h"

namespace {

constexpr int kNoOutput = -1;

TEST(Session, LooksForFiveSecondsOrForAsLongAsAllTakeToAnnounceThemselvesIfNothingElseIsSaid) {
  Options options;
  EXPECT_EQ(Session(options, kNoOutput).WaitSeconds(), 5);
  options.passive = true;
  EXPECT_EQ(Session(options, kNoOutput).WaitSeconds(), 61);
  options.wait_seconds = 0.5;
  EXPECT_EQ(Session(options, kNoOutput).WaitSeconds(), 0.5);
}

}  // namespace
