// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gmock/gmock.h>
#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <thread>
#include <vector>

#include "logging/Log.h"
#include "network/SystemCalls.h"
#include "support/FailWith.h"
#include "support/Says.h"
#include "support/SystemCallHooks.h"

TEST(SystemCalls, FatalErrorIsLoggedWithErrnoAndEndsTheProcess) {
  const auto fail = [] {
    errno = EMFILE;
    LogErrnoAndAbort("tblsvr.lstn.sock", "TableServer: listen socket error %d");
  };

  EXPECT_EXIT(fail(), testing::KilledBySignal(SIGABRT),
              Says("tblsvr.lstn.sock: TableServer: listen socket error 24: Too many open files\n"));
}

TEST(SystemCalls, FatalErrorReachesTheHookAtLevelThreeBeforeTheProcessEnds) {
  const auto fail = [] {
    SetLogHook([](Varnix::LogLevel level, const char* tag, const char* format, va_list) {
      std::fprintf(stderr, "%d|%s|%s", static_cast<int>(level), tag, format);
    });
    LogErrnoAndAbort("cook.rd.poll", "Cookie::Read: poll error %d");
  };

  EXPECT_EXIT(fail(), testing::KilledBySignal(SIGABRT), Says("3|cook.rd.poll|Cookie::Read: poll error %d"));
}

TEST(SystemCalls, HookThatThrowsKeepsNoFatalErrorFromEndingTheProcess) {
  const auto fail = [] {
    SetLogHook([](Varnix::LogLevel, const char*, const char*, va_list) { throw std::runtime_error("hook"); });
    LogErrnoAndAbort("cook.rd.poll", "Cookie::Read: poll error %d");
  };

  EXPECT_EXIT(fail(), testing::KilledBySignal(SIGABRT), Says(""));
}

TEST(SystemCalls, PollThatIsInterruptedIsRepeatedWithTheSameTimeOut) {
  std::vector<int> time_outs;
  const Hooked poll(Hooks().poll, [&](pollfd*, nfds_t, int time_out) {
    time_outs.push_back(time_out);
    return time_outs.size() < 3 ? FailWith{EINTR}() : 7;
  });
  pollfd entry{};

  EXPECT_EQ(PollAgainAfterSignals(&entry, 1, 1234), 7);

  EXPECT_EQ(time_outs, (std::vector<int>{1234, 1234, 1234}));
}

TEST(SystemCalls, PollThatFailsForAnotherReasonIsNotRepeated) {
  const Hooked poll(Hooks().poll, FailWith{EINVAL});
  pollfd entry{};

  EXPECT_EQ(PollAgainAfterSignals(&entry, 1, -1), -1);

  EXPECT_EQ(errno, EINVAL);
}

TEST(SystemCalls, InputOfADescriptorIsPolledForWithThisTimeOut) {
  pollfd polled{};
  int milliseconds = 0;
  const Hooked poll(Hooks().poll, [&](pollfd* entries, nfds_t count, int time_out) {
    EXPECT_EQ(count, 1U);
    polled = entries[0];
    milliseconds = time_out;
    return 1;
  });

  EXPECT_EQ(PollForInput(7, std::chrono::milliseconds(1234)), 1);

  EXPECT_EQ(polled.fd, 7);
  EXPECT_EQ(polled.events, POLLIN);
  EXPECT_EQ(polled.revents, 0);
  EXPECT_EQ(milliseconds, 1234);
}

TEST(SystemCalls, PollForInputThatIsInterruptedIsNotRepeated) {
  int polls = 0;
  const Hooked poll(Hooks().poll, [&](pollfd*, nfds_t, int) { return ++polls == 1 ? FailWith{EINTR}() : 0; });

  EXPECT_EQ(PollForInput(7, std::chrono::milliseconds(1234)), -1);

  EXPECT_EQ(errno, EINTR);
  EXPECT_EQ(polls, 1);
}

TEST(SystemCalls, ThreadIsNamedAfterItsWorkAndAsMuchOfTheDatabaseAsFits) {
  char name[16];
  std::thread([&] {
    NameThisThread("vrx-send", "a long name");
    pthread_getname_np(pthread_self(), name, sizeof name);
  }).join();

  EXPECT_STREQ(name, "vrx-send:a long");
}
