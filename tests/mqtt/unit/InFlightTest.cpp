// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gmock/gmock.h>

#include "InFlight.h"

namespace {

using ::testing::UnorderedElementsAre;

TEST(InFlight, HasRoomForSixtyFourMessages) {
  InFlight in_flight;
  for (int message = 0; message < 64; ++message) {
    EXPECT_TRUE(in_flight.HasRoom());
    in_flight.Add(message, "topic", 10);
  }
  EXPECT_FALSE(in_flight.HasRoom());
  EXPECT_EQ(in_flight.Remove(7), "topic");
  EXPECT_TRUE(in_flight.HasRoom());
}

TEST(InFlight, HasNoRoomOnceMessagesAreFourMebibytes) {
  InFlight in_flight;
  for (int message = 0; message < 5; ++message) {
    EXPECT_EQ(in_flight.HasRoom(), message < 5);
    in_flight.Add(message, "topic", 1'000'000);
  }
  EXPECT_FALSE(in_flight.HasRoom());
  in_flight.Remove(0);
  EXPECT_TRUE(in_flight.HasRoom());
}

TEST(InFlight, KnowsWhetherWhatWasThereAtAMomentIsAcknowledged) {
  InFlight in_flight;
  in_flight.Add(7, "a", 1);
  in_flight.Add(3, "b", 1);
  const unsigned long last = in_flight.Last();
  in_flight.Add(5, "later", 1);
  in_flight.Remove(3);
  EXPECT_TRUE(in_flight.HasAnyUpTo(last));
  in_flight.Remove(7);
  EXPECT_FALSE(in_flight.HasAnyUpTo(last));
}

TEST(InFlight, NamesWhatALostConnectionLeaves) {
  InFlight in_flight;
  in_flight.Add(1, "a", 5'000'000);
  in_flight.Add(2, "b", 1);
  EXPECT_THAT(in_flight.Clear(), UnorderedElementsAre("a", "b"));
  EXPECT_TRUE(in_flight.IsEmpty());
  EXPECT_TRUE(in_flight.HasRoom());
  EXPECT_EQ(in_flight.Remove(1), std::nullopt);
}

}  // namespace
