// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Two servers meet, hand rows over, restart and stop, while the n-th allocation of their own threads fails, or all from
// the n-th on, for every n. Each time is a process of its own.
#include <gmock/gmock.h>
#include <sys/wait.h>

#include <cstdarg>
#include <cstring>
#include <string>

#include "TwoServers.h"
#include "logging/Log.h"
#include "support/FailingAllocations.h"

using namespace std::chrono_literals;

namespace {

constexpr long kStreams = 2;  // One each way.

long Step() { return ByPatience(29, 11, 1); }

// As the first hook, and tells of every stream that is made before one of the servers restarts.
void TellOfStreams(Varnix::LogLevel level, const char* tag, const char* format, va_list arguments) {
  static bool restarted = false;
  restarted = restarted || std::strcmp(tag, kRestartTag) == 0;
  const bool made = !restarted && std::strcmp(tag, "tblsvr.fnd") == 0;
  DefaultLogger(made ? Varnix::LogLevel::Error : level, tag, format, arguments);
}

long Streams(const std::string& errors) {
  long count = 0;
  for (std::size_t at = 0; (at = errors.find("tblsvr.fnd: ", at)) != std::string::npos; ++at) ++count;
  return count;
}

// False when there were fewer allocations than that.
bool SurvivesFailure(long first, bool for_ever) {
  const Outcome outcome = RunTwoServers(first, for_ever, 300ms, [](Fault& fault) {
    SetLogHook(TellOfStreams);
    FailAllocationsOfOtherThreads([&fault] { return fault.Strikes(); });
  });
  EXPECT_TRUE(WIFEXITED(outcome.status)) << "signal " << WTERMSIG(outcome.status) << "\n" << outcome.errors;
  EXPECT_THAT(WEXITSTATUS(outcome.status), testing::AnyOf(kConverged, kFewerCalls)) << outcome.errors;
  if (!for_ever) {
    EXPECT_LE(Streams(outcome.errors), kStreams + 1) << outcome.errors;
  }
  return WEXITSTATUS(outcome.status) != kFewerCalls;
}

class EveryAllocationFailsTest : public testing::TestWithParam<bool> {};

}  // namespace

INSTANTIATE_TEST_SUITE_P(Allocation, EveryAllocationFailsTest, testing::Bool(),
                         [](const auto& parameter) { return std::string(parameter.param ? "ForAWhile" : "Once"); });

TEST_P(EveryAllocationFailsTest, OnTheServersThreadsAndAtMostOneStreamIsLostForEach) {
  const bool for_ever = GetParam();
  long first = 1;
  while (SurvivesFailure(first, for_ever) && !HasFailure()) first += Step();
  std::printf("figure: the first %ld allocations failed, one in %ld\n", first - 1, Step());
  EXPECT_FALSE(HasFailure()) << "allocation " << first;
}
