#include <gtest/gtest.h>

#include "databases/CombinedKey.h"

TEST(CombinedKey, IsALengthByteTheNameAndTheKey) { EXPECT_EQ(CombinedKey("cfg", "mode"), "\3cfgmode"); }
