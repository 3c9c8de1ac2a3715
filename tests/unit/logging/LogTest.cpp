#include <gtest/gtest.h>

#include "support/LogRecorder.h"

TEST(Log, HandsLevelTagAndFormatToTheHook) {
  LogRecorder log;

  Log(Varnix::LogLevel::Info, "tag.one", "number %d", 7);

  ASSERT_EQ(log.Lines().size(), 1U);
  EXPECT_EQ(log.Lines()[0], (LogLine{Varnix::LogLevel::Info, "tag.one", "number 7", ""}));
  EXPECT_EQ(log.Lines()[0].format, "number %d");
}
