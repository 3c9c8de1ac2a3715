// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gtest/gtest.h>

#include "memory/StringMemory.h"

TEST(AssignAndTrim, KeepsTheMemoryOfAValueOfSimilarLength) {
  std::string stored(4000, 'a');
  const char* const memory = stored.data();

  AssignAndTrim(stored, std::string(1000, 'b'));

  EXPECT_EQ(stored, std::string(1000, 'b'));
  EXPECT_EQ(stored.data(), memory);
}

TEST(AssignAndTrim, GivesBackTheMemoryOfAMuchLongerValue) {
  std::string stored(4000, 'a');

  AssignAndTrim(stored, std::string(999, 'b'));

  EXPECT_EQ(stored, std::string(999, 'b'));
  EXPECT_LT(stored.capacity(), 4000U);
}

TEST(AssignAndTrim, KeepsTheMemoryOfAShortValueInAnyCase) {
  std::string stored(1024, 'a');

  AssignAndTrim(stored, "");

  EXPECT_EQ(stored, "");
  EXPECT_EQ(stored.capacity(), 1024U);
}

TEST(AssignAndTrim, TakesNoMoreMemoryThanALongerValueNeeds) {
  std::string stored(1000, 'a');

  AssignAndTrim(stored, std::string(1001, 'b'));

  EXPECT_EQ(stored, std::string(1001, 'b'));
  EXPECT_EQ(stored.capacity(), 1001U);
}

TEST(EmptyForReuse, KeepsTheMemoryOfAUsualValue) {
  std::string place(4096, 'a');

  EmptyForReuse(place);

  EXPECT_EQ(place, "");
  EXPECT_EQ(place.capacity(), 4096U);
}

TEST(EmptyForReuse, GivesBackTheMemoryOfALongValue) {
  std::string place(4097, 'a');

  EmptyForReuse(place);

  EXPECT_EQ(place, "");
  EXPECT_LT(place.capacity(), 4097U);
}
