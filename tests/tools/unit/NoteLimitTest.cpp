// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// How much a command says of those who make trouble.
#include <gtest/gtest.h>

#include "io/NoteLimit.h"

namespace {

using std::chrono::seconds;

const TimePoint kNow = Clock::now();

std::size_t Admitted(NoteLimit& limit, std::size_t count, TimePoint now) {
  std::size_t admitted = 0;
  for (std::size_t i = 0; i < count; ++i) admitted += limit.Admits(now) ? 1 : 0;
  return admitted;
}

TEST(NoteLimit, AdmitsSoManyInAMinute) {
  NoteLimit limit;

  EXPECT_EQ(Admitted(limit, 40, kNow), 40u);
  EXPECT_EQ(Admitted(limit, 1000, kNow + seconds(59)), NoteLimit::kMost - 40);
  EXPECT_EQ(Admitted(limit, 1000, kNow + seconds(60)), NoteLimit::kMost);
  EXPECT_EQ(Admitted(limit, 1000, kNow + seconds(119)), 0u);
}

TEST(NoteLimit, TellsHowManyItLeftOutWhenTheMinuteIsOver) {
  NoteLimit limit;
  Admitted(limit, NoteLimit::kMost, kNow);
  EXPECT_EQ(limit.Deadline(), TimePoint::max());

  Admitted(limit, 7, kNow + seconds(30));

  EXPECT_EQ(limit.Deadline(), kNow + NoteLimit::kPeriod);
  EXPECT_EQ(limit.TakeLeftOut(kNow + seconds(59)), 0u);
  EXPECT_EQ(limit.TakeLeftOut(kNow + seconds(60)), 7u);
  EXPECT_EQ(limit.TakeLeftOut(TimePoint::max()), 0u);
}

}  // namespace
