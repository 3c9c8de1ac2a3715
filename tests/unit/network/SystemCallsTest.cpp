#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <tuple>
#include <vector>

#include "FailWith.h"
#include "SystemCallHooks.h"
#include "logging/Log.h"
#include "network/SystemCalls.h"
#include "support/Says.h"

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

TEST(SystemCalls, DescriptorIsKeptFromProgramsThatTheHostStarts) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  ASSERT_EQ(fcntl(ends[0], F_GETFD), 0);

  CloseOnExec(ends[0]);

  EXPECT_EQ(fcntl(ends[0], F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(fcntl(ends[1], F_GETFD), 0);
  close(ends[0]);
  close(ends[1]);
}

TEST(SystemCalls, CloseOnExecIsOneCallOfFcntl) {
  std::vector<std::tuple<int, int, long>> calls;
  Hooked fcntl(Hooks().fcntl, [&](int descriptor, int command, long argument) {
    calls.emplace_back(descriptor, command, argument);
    return 0;
  });

  CloseOnExec(77);

  EXPECT_EQ(calls, (std::vector<std::tuple<int, int, long>>{{77, F_SETFD, FD_CLOEXEC}}));
}

TEST(SystemCalls, CloseOnExecThatFailsIsOverlooked) {
  Hooked fcntl(Hooks().fcntl, FailWith{EBADF});

  EXPECT_NO_THROW(CloseOnExec(77));
}
