#include <gtest/gtest.h>

#include "network/StopExceptions.h"

TEST(StopExceptions, SayWhyTheStreamEnds) {
  EXPECT_STREQ(SelfConnect().what(), "TableServer shutdown due to self-connect");
  EXPECT_STREQ(WrongServer().what(), "TableServer shutdown because connected to unexpected table server");
  EXPECT_STREQ(AbortRequested().what(), "TableServer shutdown because abort requested");
  EXPECT_STREQ(AlreadyConnected().what(), "TableServer shutdown because existing connection detected");
}
