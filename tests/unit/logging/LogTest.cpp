#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "logging/Log.h"
#include "support/LogRecorder.h"

namespace {

using Varnix::LogLevel;

class DefaultLoggerTest : public testing::Test {
 protected:
  DefaultLoggerTest() { SetLogHook(DefaultLogger); }

  // What is printed on standard error while `errno` is EADDRINUSE.
  template <class... Arguments>
  static std::string Printed(LogLevel level, const char* tag, const char* format, Arguments... arguments) {
    testing::internal::CaptureStderr();
    errno = EADDRINUSE;
    Log(level, tag, format, arguments...);
    return testing::internal::GetCapturedStderr();
  }
};

}  // namespace

TEST(Log, HandsLevelTagAndUnexpandedFormatToTheHook) {
  LogRecorder log;

  Log(LogLevel::Info, "tag.one", "number %d", 7);

  ASSERT_EQ(log.Lines().size(), 1U);
  EXPECT_EQ(log.Lines()[0], (LogLine{LogLevel::Info, "tag.one", "number 7", ""}));
  EXPECT_EQ(log.Lines()[0].format, "number %d");
}

TEST(Log, LevelsAreNumberedAsTheSyslogSeverities) {
  EXPECT_EQ(static_cast<int>(LogLevel::Error), 3);
  EXPECT_EQ(static_cast<int>(LogLevel::Info), 6);
  EXPECT_EQ(static_cast<int>(LogLevel::Debug), 7);
}

TEST(Log, DropsEveryMessageWhileTheHookIsEmpty) {
  testing::internal::CaptureStderr();
  Varnix::SetLoggingFunction(nullptr);

  EXPECT_NO_THROW(Log(LogLevel::Error, "tblsvr.lstn.lstn", "TableServer: listen error %d", 98));

  SetLogHook(DefaultLogger);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(Log, PassesOnWhatTheHookThrowsWithTheLockReleased) {
  Varnix::SetLoggingFunction([](LogLevel, const char*, const char*, va_list) { throw std::runtime_error("full"); });

  EXPECT_THROW(Log(LogLevel::Debug, "tag", "text"), std::runtime_error);

  LogRecorder log;  // Takes the log lock.
  Log(LogLevel::Debug, "tag", "text");
  EXPECT_EQ(log.Lines().size(), 1U);
}

TEST(Log, NeverRunsTheHookTwiceAtOnce) {
  std::atomic<int> running{0};
  std::atomic<int> most{0};
  std::atomic<int> calls{0};
  Varnix::SetLoggingFunction([&](LogLevel, const char*, const char*, va_list) {
    most = std::max(most.load(), ++running);
    std::this_thread::yield();
    --running;
    ++calls;
  });

  std::thread threads[4];
  for (std::thread& thread : threads) {
    thread = std::thread([] {
      for (int i = 0; i < 1000; ++i) Log(LogLevel::Debug, "tag", "text");
    });
  }
  for (std::thread& thread : threads) thread.join();
  SetLogHook(DefaultLogger);

  EXPECT_EQ(most, 1);
  EXPECT_EQ(calls, 4000);
}

TEST(SetLoggingFunction, DestroysThePreviousHookBeforeItReturns) {
  auto captured = std::make_shared<int>(1);
  const std::weak_ptr<int> alive = captured;
  Varnix::SetLoggingFunction([kept = std::move(captured)](LogLevel, const char*, const char*, va_list) {});
  ASSERT_FALSE(alive.expired());

  Varnix::SetLoggingFunction(DefaultLogger);

  EXPECT_TRUE(alive.expired());
}

TEST(SetLoggingFunction, KeepsTheHookWhenTheNewOneCannotBeCopied) {
  struct ThrowsOnCopy {
    explicit ThrowsOnCopy(const bool& armed) : throws(&armed) {}
    ThrowsOnCopy(const ThrowsOnCopy& other) : throws(other.throws) {
      if (*throws) throw std::runtime_error("no copy");
    }
    void operator()(LogLevel, const char*, const char*, va_list) const {}
    const bool* throws;
  };
  bool armed = false;
  const LogHook uncopyable = ThrowsOnCopy(armed);
  LogRecorder log;
  armed = true;

  EXPECT_THROW(SetLogHook(uncopyable), std::runtime_error);

  Log(LogLevel::Debug, "tag", "text");
  EXPECT_EQ(log.Lines().size(), 1U);
}

TEST_F(DefaultLoggerTest, PrintsAnErrorWithItsTagAndTheTextOfErrno) {
  EXPECT_EQ(Printed(LogLevel::Error, "tblsvr.lstn.lstn", "TableServer: listen error %d", 98),
            "tblsvr.lstn.lstn: TableServer: listen error 98: Address already in use\n");
}

TEST_F(DefaultLoggerTest, PrintsNothingOfAnyOtherLevel) {
  for (int level : {0, 1, 2, 4, 5, 6, 7}) {
    EXPECT_EQ(Printed(static_cast<LogLevel>(level), "tag", "%s", "text"), "") << level;
  }
}

TEST_F(DefaultLoggerTest, CutsTheMessageAt1023Characters) {
  const std::string message(1024, 'm');

  EXPECT_EQ(Printed(LogLevel::Error, "tag", "%s", message.c_str()),
            "tag: " + std::string(1023, 'm') + ": Address already in use\n");
}

TEST_F(DefaultLoggerTest, CutsTagAndMessageTogetherAt1199Characters) {
  const std::string tag(300, 't');
  const std::string message(1023, 'm');

  EXPECT_EQ(Printed(LogLevel::Error, tag.c_str(), "%s", message.c_str()),
            std::string(300, 't') + ": " + std::string(897, 'm') + ": Address already in use\n");
}
