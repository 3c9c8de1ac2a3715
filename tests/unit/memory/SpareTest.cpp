// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "memory/Spare.h"
#include "support/FailingAllocations.h"

TEST(Spare, GivesWhatWasGivenBackOnce) {
  Spare<std::string> spare;
  std::unique_ptr<std::string> first = spare.Take();
  *first = "used";
  spare.GiveBack(std::move(first));

  EXPECT_EQ(*spare.Take(), "used");
  EXPECT_EQ(*spare.Take(), "");
}

TEST(Spare, GivesEachUserOneAndKeepsTheLastThatIsGivenBack) {
  Spare<std::string> spare;
  std::unique_ptr<std::string> first = spare.Take();
  std::unique_ptr<std::string> second = spare.Take();
  *first = "first";
  *second = "second";

  spare.GiveBack(std::move(first));
  spare.GiveBack(std::move(second));

  EXPECT_EQ(*spare.Take(), "second");
  EXPECT_EQ(*spare.Take(), "");
}

TEST(Spare, LeavesNothingBehind) {
  EXPECT_EQ(LeavesAllocated([] {
              Spare<std::string> spare;
              std::unique_ptr<std::string> first = spare.Take();
              std::unique_ptr<std::string> second = spare.Take();
              spare.GiveBack(std::move(first));
              spare.GiveBack(std::move(second));
            }),
            0);
}
