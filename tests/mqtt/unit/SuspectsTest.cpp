// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "Suspects.h"

namespace {

using std::chrono::milliseconds;

// A connection in which the first suspect is published alone, and that is cut off then.
std::optional<std::string> CutOffAtTheFirst(Suspects& suspects) {
  return suspects.ConnectionWasCutOff({*suspects.Next()});
}

TEST(Suspects, AreAllMessagesWithoutAnAcknowledgement) {
  Suspects suspects;
  EXPECT_EQ(suspects.Next(), std::nullopt);
  EXPECT_EQ(suspects.ConnectionWasCutOff({"a", "b"}), std::nullopt);
  EXPECT_EQ(suspects.Next(), "a");
  suspects.GotThrough("a");
  EXPECT_EQ(suspects.Next(), "b");
  suspects.GotThrough("b");
  EXPECT_EQ(suspects.Next(), std::nullopt);
}

TEST(Suspects, AreConvictedWhenTheyAreAloneTwice) {
  Suspects suspects;
  suspects.ConnectionWasCutOff({"a", "b"});
  suspects.GotThrough("a");
  EXPECT_EQ(CutOffAtTheFirst(suspects), std::nullopt);
  EXPECT_FALSE(suspects.LeavesOut("b"));
  EXPECT_EQ(CutOffAtTheFirst(suspects), "b");
  EXPECT_TRUE(suspects.LeavesOut("b"));
  EXPECT_FALSE(suspects.LeavesOut("a"));
  EXPECT_EQ(suspects.Next(), std::nullopt);
}

TEST(Suspects, AreClearedWhenTheyGetThroughInBetween) {
  Suspects suspects;
  suspects.ConnectionWasCutOff({"a"});
  suspects.ConnectionWasCutOff({"b"});  // Not alone as a suspect: it is one from here on.
  EXPECT_EQ(suspects.Next(), "b");
  EXPECT_EQ(CutOffAtTheFirst(suspects), std::nullopt);
  suspects.GotThrough("b");
  suspects.ConnectionWasCutOff({"b"});
  EXPECT_EQ(CutOffAtTheFirst(suspects), std::nullopt);
  EXPECT_FALSE(suspects.LeavesOut("b"));
}

TEST(Suspects, StayWhenAConnectionEndsWithNothingUnderway) {
  Suspects suspects;
  suspects.ConnectionWasCutOff({"a"});
  EXPECT_EQ(suspects.ConnectionWasCutOff({}), std::nullopt);
  EXPECT_EQ(suspects.Next(), "a");
  EXPECT_EQ(CutOffAtTheFirst(suspects), std::nullopt);
  EXPECT_EQ(suspects.ConnectionWasCutOff({}), std::nullopt);
  EXPECT_EQ(CutOffAtTheFirst(suspects), "a");
}

TEST(Suspects, AreAlsoThoseRefusedJustBefore) {
  Suspects suspects;
  const Suspects::Time now = std::chrono::steady_clock::now();
  EXPECT_EQ(suspects.WasRefused("long ago", now - milliseconds(1500)), std::nullopt);
  EXPECT_EQ(suspects.WasRefused("a", now - milliseconds(500)), std::nullopt);
  suspects.ConnectionWasCutOff({}, now);
  EXPECT_EQ(suspects.Next(), "a");
  EXPECT_EQ(suspects.WasRefused("a"), "a");
  EXPECT_TRUE(suspects.LeavesOut("a"));
  EXPECT_EQ(suspects.Next(), std::nullopt);
}

TEST(Suspects, AreAlsoThoseRefusedForElseJustBefore) {
  Suspects suspects;
  const Suspects::Time now = std::chrono::steady_clock::now();
  suspects.WasRefusedForElse("long ago", now - milliseconds(1500));
  suspects.WasRefusedForElse("a", now - milliseconds(500));
  suspects.ConnectionWasCutOff({"b"}, now);
  EXPECT_EQ(suspects.Next(), "b");
  suspects.GotThrough("b");
  EXPECT_EQ(suspects.Next(), "a");
  suspects.WasRefusedForElse("a");
  EXPECT_EQ(suspects.Next(), "a");  // Does the broker still answer?
  suspects.WasRefusedForElse("a");
  EXPECT_EQ(suspects.Next(), std::nullopt);
  EXPECT_FALSE(suspects.LeavesOut("a"));
}

TEST(Suspects, WaitASecondWhenACutOffHasFollowedTheSecondAnswer) {
  Suspects suspects;
  const Suspects::Time start = std::chrono::steady_clock::now();
  suspects.ConnectionWasCutOff({"a"}, start);
  suspects.WasRefusedForElse("a", start);
  EXPECT_FALSE(suspects.NextMustWait(start));
  suspects.WasRefusedForElse("a", start);
  EXPECT_EQ(suspects.Next(), std::nullopt);

  suspects.ConnectionWasCutOff({"b"}, start + milliseconds(900));
  EXPECT_EQ(suspects.Next(), "b");
  EXPECT_FALSE(suspects.NextMustWait(start + milliseconds(2000)));
  suspects.GotThrough("b");
  EXPECT_EQ(suspects.Next(), "a");
  suspects.WasRefusedForElse("a", start + milliseconds(2000));
  EXPECT_TRUE(suspects.NextMustWait(start + milliseconds(2900)));
  EXPECT_FALSE(suspects.NextMustWait(start + milliseconds(3100)));
}

TEST(Suspects, DoNotWaitWhenALaterCutOffHasAnotherCause) {
  Suspects suspects;
  const Suspects::Time start = std::chrono::steady_clock::now();
  suspects.ConnectionWasCutOff({"a"}, start);
  suspects.WasRefusedForElse("a", start);
  suspects.WasRefusedForElse("a", start);
  suspects.WasRefusedForElse("a", start + milliseconds(4500));
  suspects.ConnectionWasCutOff({}, start + milliseconds(5000));
  EXPECT_EQ(suspects.Next(), "a");
  suspects.WasRefusedForElse("a", start + milliseconds(6000));
  EXPECT_FALSE(suspects.NextMustWait(start + milliseconds(6000)));
}

TEST(Suspects, AreConvictedOfThreeCutOffsWhenTheyWereRefusedForElse) {
  Suspects suspects;
  suspects.ConnectionWasCutOff({"a", "b"});
  suspects.WasRefusedForElse("a");
  EXPECT_EQ(suspects.ConnectionWasCutOff({}), std::nullopt);
  suspects.WasRefusedForElse("a");
  EXPECT_EQ(CutOffAtTheFirst(suspects), std::nullopt);
  EXPECT_EQ(suspects.Next(), "a");
  suspects.WasRefusedForElse("a");
  EXPECT_EQ(suspects.ConnectionWasCutOff({}), "a");
  EXPECT_EQ(suspects.Next(), "b");
}

TEST(Suspects, AreRefusedTwiceInOneConnectionBeforeTheyGetThrough) {
  Suspects suspects;
  suspects.ConnectionWasCutOff({"a"});
  suspects.WasRefusedForElse("a");
  suspects.ConnectionEndedOtherwise();
  suspects.ConnectionWasCutOff({});  // With nothing underway.
  EXPECT_EQ(CutOffAtTheFirst(suspects), std::nullopt);
  suspects.WasRefusedForElse("a");
  EXPECT_EQ(suspects.Next(), "a");
}

TEST(Suspects, LeaveOutAThousandAndForgetTheFirst) {
  Suspects suspects;
  for (std::size_t i = 0; i <= Suspects::kMostLeftOut; ++i) {
    suspects.ConnectionWasCutOff({std::to_string(i)});
    CutOffAtTheFirst(suspects);
    CutOffAtTheFirst(suspects);
  }
  EXPECT_FALSE(suspects.LeavesOut("0"));
  EXPECT_TRUE(suspects.LeavesOut("1"));
  EXPECT_TRUE(suspects.LeavesOut("1000"));
}

}  // namespace
