#include <gtest/gtest.h>

#include "databases/InternalTableName.h"

TEST(InternalTableName, IsThePrefixTheKindAndTheDatabase) {
  EXPECT_EQ(InternalTableName("dbtbl", "main"), "_vrx_.dbtbl.main");
}

TEST(InternalTableName, EscapesNothing) {
  EXPECT_EQ(InternalTableName("comb", "x.y"), "_vrx_.comb.x.y");
  EXPECT_EQ(InternalTableName("tbltbl", ""), "_vrx_.tbltbl.");
}
