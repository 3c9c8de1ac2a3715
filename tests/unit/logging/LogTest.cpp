// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "logging/Log.h"
#include "support/FailingAllocations.h"
#include "support/FailingLocks.h"
#include "support/LogRecorder.h"
#include "support/SleepingThread.h"

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

TEST(Log, DoesNotEvenFormatWhileTheHookIsEmpty) {
  int characters = -1;
  SetLogHook({});

  Log(LogLevel::Error, "tag", "text%n", &characters);

  SetLogHook(DefaultLogger);
  EXPECT_EQ(characters, -1);
}

TEST(Log, HandsEveryLevelOfTheSyslogRangeToTheHook) {
  LogRecorder log;

  for (int level = 0; level <= 7; ++level) Log(static_cast<LogLevel>(level), "tag", "text");

  std::vector<int> levels;
  for (const LogLine& line : log.Lines()) levels.push_back(static_cast<int>(line.level));
  EXPECT_EQ(levels, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7}));
}

TEST(Log, PassesOnWhatTheHookThrowsWithTheLockReleased) {
  Varnix::SetLoggingFunction([](LogLevel, const char*, const char*, va_list) { throw std::runtime_error("full"); });

  EXPECT_THROW(Log(LogLevel::Debug, "tag", "text"), std::runtime_error);

  LogRecorder log;  // Takes the log lock.
  Log(LogLevel::Debug, "tag", "text");
  EXPECT_EQ(log.Lines().size(), 1U);
}

TEST(Log, ThrowsWhenTheLockFailsAndWorksAfterwards) {
  int calls = 0;  // No recorder: that takes a lock of its own.
  SetLogHook([&](LogLevel, const char*, const char*, va_list) { ++calls; });

  EXPECT_TRUE(FailsToLockAt(1, [] { Log(LogLevel::Debug, "tag", "lost"); }));
  EXPECT_EQ(calls, 0);

  Log(LogLevel::Debug, "tag", "text");
  SetLogHook(DefaultLogger);
  EXPECT_EQ(calls, 1);
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

TEST(Log, TakesNoLockForWhatNobodyHears) {
  for (const LogHook& hook : {LogHook(DefaultLogger), LogHook()}) {
    SetLogHook(hook);
    LockLog();  // As while the hook prints an error to a slow device.
    const std::future<void> logged = std::async(std::launch::async, [] { Log(LogLevel::Debug, "tag", "text"); });
    const bool through_meanwhile = logged.wait_for(std::chrono::seconds(60)) == std::future_status::ready;
    UnlockLog();
    EXPECT_TRUE(through_meanwhile) << (hook ? "first hook" : "empty hook");
  }

  SetLogHook(DefaultLogger);
}

TEST(Log, HasAHookOfTheProgramWhenThatIsNeitherTheFirstOneNorEmpty) {
  EXPECT_FALSE(HasHookOfTheProgram()) << "first hook";

  SetLogHook({});
  EXPECT_FALSE(HasHookOfTheProgram()) << "empty hook";

  SetLogHook([](LogLevel, const char*, const char*, va_list) {});
  EXPECT_TRUE(HasHookOfTheProgram()) << "hook of the program";

  SetLogHook(DefaultLogger);
  EXPECT_FALSE(HasHookOfTheProgram()) << "first hook again";
}

TEST(Log, KnowsTheThreadThatRunsTheHookAndForgetsItAfterwards) {
  bool here = false;
  bool elsewhere = true;
  SetLogHook([&](LogLevel, const char*, const char*, va_list) {
    here = IsInLogHook();
    std::thread([&] { elsewhere = IsInLogHook(); }).join();
  });

  Log(LogLevel::Debug, "tag", "text");

  SetLogHook(DefaultLogger);
  EXPECT_TRUE(here);
  EXPECT_FALSE(elsewhere);
  EXPECT_FALSE(IsInLogHook());
}

TEST(Log, ForgetsTheThreadAlsoWhenTheHookThrows) {
  SetLogHook([](LogLevel, const char*, const char*, va_list) { throw std::runtime_error("full"); });

  EXPECT_THROW(Log(LogLevel::Debug, "tag", "text"), std::runtime_error);

  SetLogHook(DefaultLogger);
  EXPECT_FALSE(IsInLogHook());
}

TEST(SetLoggingFunction, DestroysThePreviousHookBeforeItReturns) {
  auto captured = std::make_shared<int>(1);
  const std::weak_ptr<int> alive = captured;
  Varnix::SetLoggingFunction([kept = std::move(captured)](LogLevel, const char*, const char*, va_list) {});
  ASSERT_FALSE(alive.expired());

  Varnix::SetLoggingFunction(DefaultLogger);

  EXPECT_TRUE(alive.expired());
}

TEST(SetLoggingFunction, DestroysThePreviousHookBeforeAnyMessageReachesTheNewOne) {
  struct Captured {
    ~Captured() {
      logger.emplace([] { Log(LogLevel::Debug, "tag", "text"); });  // Sleeps for the log lock, or is through already.
      destroyed = true;
    }
    std::optional<SleepingThread>& logger;
    std::atomic<bool>& destroyed;
  };
  std::optional<SleepingThread> logger;
  std::atomic<bool> destroyed{false};
  std::vector<bool> destroyed_at_message;
  SetLogHook([kept = std::shared_ptr<Captured>(new Captured{logger, destroyed})](LogLevel, const char*, const char*,
                                                                                 va_list) {});

  SetLogHook([&](LogLevel, const char*, const char*, va_list) { destroyed_at_message.push_back(destroyed); });
  logger.reset();
  SetLogHook(DefaultLogger);

  EXPECT_EQ(destroyed_at_message, std::vector<bool>{true});
}

TEST(SetLoggingFunction, WaitsForARunningCallOfTheHook) {
  std::optional<SleepingThread> setter;
  std::atomic<bool> replaced{false};
  bool replaced_during_call = false;
  SetLogHook([&](LogLevel, const char*, const char*, va_list) {
    setter.emplace([&] {
      SetLogHook(DefaultLogger);
      replaced = true;
    });
    replaced_during_call = replaced;
  });

  Log(LogLevel::Debug, "tag", "text");
  setter.reset();

  EXPECT_FALSE(replaced_during_call);
  EXPECT_TRUE(replaced);
}

TEST(SetLoggingFunction, LeavesACopyOfTheFunctionToTheCaller) {
  int calls = 0;
  const LogHook hook = [&](LogLevel, const char*, const char*, va_list) { ++calls; };

  Varnix::SetLoggingFunction(hook);
  Log(LogLevel::Debug, "tag", "text");
  SetLogHook(DefaultLogger);

  EXPECT_TRUE(static_cast<bool>(hook));
  EXPECT_EQ(calls, 1);
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

TEST(SetLoggingFunction, KeepsTheHookWhenTheLockFails) {
  LogRecorder log;

  EXPECT_TRUE(FailsToLockAt(1, [] { Varnix::SetLoggingFunction(nullptr); }));

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

TEST_F(DefaultLoggerTest, PrintsNothingForALifecycleMessage) {
  EXPECT_EQ(Printed(LogLevel::Debug, "tbl.set.ins", "Table(%p) inserting row for %s (%zu bytes)",
                    static_cast<const void*>(nullptr), "key", std::size_t{4}),
            "");
}

TEST_F(DefaultLoggerTest, PrintsAMessageOf1023CharactersWhole) {
  const std::string message(1023, 'm');

  EXPECT_EQ(Printed(LogLevel::Error, "t", "%s", message.c_str()), "t: " + message + ": Address already in use\n");
}

TEST_F(DefaultLoggerTest, PrintsTagAndMessageOf1199CharactersWhole) {
  const std::string tag(174, 't');
  const std::string message(1023, 'm');

  EXPECT_EQ(Printed(LogLevel::Error, tag.c_str(), "%s", message.c_str()),
            tag + ": " + message + ": Address already in use\n");
}

TEST_F(DefaultLoggerTest, FormatsOnlyWhatItPrints) {
  int characters = -1;

  EXPECT_EQ(Printed(LogLevel::Debug, "tag", "text%n", &characters), "");

  EXPECT_EQ(characters, -1);
}

TEST_F(DefaultLoggerTest, AllocatesNothing) {
  testing::internal::CaptureStderr();
  bool failed = false;
  {
    const FailingAllocation failing(1);
    Log(LogLevel::Error, "tag", "text");
    Log(LogLevel::Debug, "tag", "text");
    failed = failing.HasFailed();
  }

  testing::internal::GetCapturedStderr();
  EXPECT_FALSE(failed);
}

TEST(DefaultLoggerDeathTest, IsInPlaceBeforeAnyHookIsSet) {
  EXPECT_EXIT(
      {
        errno = EADDRINUSE;
        Log(LogLevel::Error, "tblsvr.lstn.lstn", "TableServer: listen error %d", 98);
        std::_Exit(0);
      },
      testing::ExitedWithCode(0), "tblsvr.lstn.lstn: TableServer: listen error 98: Address already in use\n");
}

TEST(LogDeathTest, ReachesTheHookFromDestructorsOfTheProgramsStaticObjects) {
  EXPECT_EXIT(
      {
        static struct LogsLate {
          ~LogsLate() { Log(LogLevel::Debug, "tag", "late"); }
        } logs_late;
        SetLogHook([](LogLevel, const char*, const char* format, va_list) { std::fputs(format, stderr); });
        std::exit(0);
      },
      testing::ExitedWithCode(0), "late");
}

TEST(LogDeathTest, ThrowsAwayTheHookWithWhatItCapturedWhenTheProcessExits) {
  EXPECT_EXIT(
      {
        struct Captured {
          ~Captured() { std::fputs("destroyed", stderr); }
        };
        SetLogHook([kept = std::make_shared<Captured>()](LogLevel, const char*, const char*, va_list) {});
        std::exit(0);
      },
      testing::ExitedWithCode(0), "destroyed");
}
