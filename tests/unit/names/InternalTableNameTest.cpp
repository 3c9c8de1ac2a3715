// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gtest/gtest.h>

#include "names/InternalTableName.h"

TEST(InternalTableName, IsThePrefixTheKindAndTheDatabase) {
  EXPECT_EQ(InternalTableName("dbtbl", "main"), "_vrx_.dbtbl.main");
}

TEST(InternalTableName, EscapesNothing) {
  EXPECT_EQ(InternalTableName("comb", "x.y"), "_vrx_.comb.x.y");
  EXPECT_EQ(InternalTableName("tbltbl", ""), "_vrx_.tbltbl.");
}

TEST(InternalTableName, KeepsZeroBytes) {
  EXPECT_EQ(InternalTableName(std::string("out_a\0b", 7), std::string("d\0e", 3)),
            std::string("_vrx_.out_a\0b.d\0e", 17));
}
