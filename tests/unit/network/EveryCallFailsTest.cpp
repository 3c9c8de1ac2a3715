// Two servers meet, hand rows over, restart and stop, while the n-th of the calls of one kind fails, or all from the
// n-th on: for every n, every call and every error that it can give. Each time is a process of its own, which may end in
// three ways: everything works once the fault is over; or it is one of the failures that end the process, with its line;
// or there were fewer than n calls, and n grows no more.
#include <gmock/gmock.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "SystemCallHooks.h"
#include "TwoServers.h"

using namespace std::chrono_literals;

namespace {

long HighestCall() { return ByPatience(4, 16, 1000); }

template <class Result, class... Arguments>
void Inject(Hook<Result(Arguments...)>& hook, Fault& fault, int error, Result failure) {
  hook.Set([&hook, &fault, error, failure](Arguments... arguments) -> Result {
    if (!fault.Strikes()) return hook.Real(arguments...);
    errno = error;
    return failure;
  });
}

struct FailingCall {
  const char* name;
  std::function<void(Fault& fault, int error)> inject;
  std::vector<int> errors;
  std::vector<std::string> fatal_tags;  // Of the lines after which the process may end.
};

void PrintTo(const FailingCall& call, std::ostream* out) { *out << call.name; }

const std::vector<FailingCall>& FailingCalls() {
  static const std::vector<FailingCall> calls = {
      {"socket",
       [](Fault& fault, int error) { Inject(Hooks().socket, fault, error, -1); },
       {EMFILE, ENFILE, ENOBUFS, ENOMEM},
       {"tblsvr.lstn.sock", "tblsvr.dscv.sock", "tblrcvr.sock"}},
      {"bind",
       [](Fault& fault, int error) { Inject(Hooks().bind, fault, error, -1); },
       {EADDRINUSE, EACCES},
       {"tblsvr.lstn.bind", "tblsvr.dscv.bind"}},
      {"listen",
       [](Fault& fault, int error) { Inject(Hooks().listen, fault, error, -1); },
       {EADDRINUSE},
       {"tblsvr.lstn.lstn"}},
      {"getsockname",
       [](Fault& fault, int error) { Inject(Hooks().getsockname, fault, error, -1); },
       {ENOBUFS},
       {"tblsvr.lstn.name"}},
      {"pipe",
       [](Fault& fault, int error) { Inject(Hooks().pipe, fault, error, -1); },
       {EMFILE, ENFILE},
       {"tblsvr.pipe.done", "tblsvr.pipe.wake"}},
      {"setsockopt",
       [](Fault& fault, int error) { Inject(Hooks().setsockopt, fault, error, -1); },
       {ENOPROTOOPT, ENOMEM},
       {"tblsvr.dscv.opt.bcast", "tblsvr.dscv.opt.reuse"}},
      {"fopencookie",
       [](Fault& fault, int error) { Inject<FILE*>(Hooks().fopencookie, fault, error, nullptr); },
       {ENOMEM},
       {"tblsndr.cook.fopen"}},
      {"poll",
       [](Fault& fault, int error) {
         Hooks().poll.Set([&fault, error](pollfd* entries, nfds_t count, int time_out) {
           if (!fault.Strikes()) return PollQuickly(entries, count, time_out);
           errno = error;
           return -1;
         });
       },
       {EINTR, ENOMEM},
       {"tblsvr.dscv.poll", "tblsvr.acc.poll", "cook.rd.poll", "cook.wr.poll"}},
      {"send",
       [](Fault& fault, int error) { Inject(Hooks().send, fault, error, ssize_t{-1}); },
       {EINTR, EAGAIN, EPIPE, ECONNRESET, ENOMEM},
       {"cook.wr.wr"}},
      {"recv",
       [](Fault& fault, int error) { Inject(Hooks().recv, fault, error, ssize_t{-1}); },
       {EINTR, ECONNRESET, ETIMEDOUT, ENOMEM},
       {}},
      {"sendto",
       [](Fault& fault, int error) { Inject(Hooks().sendto, fault, error, ssize_t{-1}); },
       {EINTR, ENETUNREACH, ENETDOWN, EPERM, ENOBUFS},
       {}},
      {"recvfrom",
       [](Fault& fault, int error) { Inject(Hooks().recvfrom, fault, error, ssize_t{-1}); },
       {EINTR, ENOMEM},
       {}},
      {"accept",
       [](Fault& fault, int error) { Inject(Hooks().accept, fault, error, -1); },
       {EINTR, ECONNABORTED, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPROTO, EPERM},
       {}},
      {"connect",
       [](Fault& fault, int error) { Inject(Hooks().connect, fault, error, -1); },
       {EINTR, ECONNREFUSED, ENETUNREACH, EADDRNOTAVAIL, ETIMEDOUT},
       {}},
      {"getsockopt", [](Fault& fault, int error) { Inject(Hooks().getsockopt, fault, error, -1); }, {ENOBUFS}, {}},
      {"fcntl", [](Fault& fault, int error) { Inject(Hooks().fcntl, fault, error, -1); }, {ENOMEM}, {}},
  };
  return calls;
}

// Other threads may say something, too, until the process is gone.
bool HasLineOfOneOf(const std::string& errors, const std::vector<std::string>& tags) {
  return std::any_of(tags.begin(), tags.end(), [&](const std::string& tag) {
    return errors.rfind(tag + ": ", 0) == 0 || errors.find("\n" + tag + ": ") != std::string::npos;
  });
}

class EveryCallFailsTest : public testing::TestWithParam<FailingCall> {};

}  // namespace

INSTANTIATE_TEST_SUITE_P(Call, EveryCallFailsTest, testing::ValuesIn(FailingCalls()),
                         [](const auto& parameter) { return std::string(parameter.param.name); });

TEST_P(EveryCallFailsTest, OnceOrForEverAndAllIsWellOnceItIsOverOrTheProcessEndsWithItsLine) {
  const long most = HighestCall();
  int runs = 0;
  int ends_of_process = 0;
  for (const int error : GetParam().errors) {
    for (const bool for_ever : {false, true}) {
      for (long first = 1; first <= most; ++first) {
        const Outcome outcome =
            RunTwoServers(first, for_ever, 30ms, [error](Fault& fault) { GetParam().inject(fault, error); });
        ++runs;
        const bool aborted = WIFSIGNALED(outcome.status) && WTERMSIG(outcome.status) == SIGABRT;
        if (aborted && HasLineOfOneOf(outcome.errors, GetParam().fatal_tags)) {
          ++ends_of_process;
          continue;
        }
        ASSERT_TRUE(WIFEXITED(outcome.status)) << "signal " << WTERMSIG(outcome.status) << ", error " << error
                                               << " from call " << first << (for_ever ? " on" : " alone") << "\n"
                                               << outcome.errors;
        const int ending = WEXITSTATUS(outcome.status);
        ASSERT_TRUE(ending == kConverged || ending == kFewerCalls)
            << "ending " << ending << ", error " << error << " from call " << first << (for_ever ? " on" : " alone")
            << "\n"
            << outcome.errors;
        if (ending == kFewerCalls) break;
      }
    }
  }
  RecordProperty("runs", runs);
  RecordProperty("ends_of_process", ends_of_process);
  std::printf("figure: %s fails: %d runs, %d of which end the process\n", GetParam().name, runs, ends_of_process);
  EXPECT_EQ(ends_of_process > 0, !GetParam().fatal_tags.empty());
}
