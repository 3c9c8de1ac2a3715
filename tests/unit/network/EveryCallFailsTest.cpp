// Two servers meet, hand rows over, restart and stop, while the n-th of the calls of one kind fails, or all from the
// n-th on: for every n, every call and every error that it can give. Each time is a process of its own, which may end in
// three ways: everything works once the fault is over; or it is one of the failures that end the process, with its line;
// or there were fewer than n calls, and n grows no more.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iterator>
#include <memory>
#include <ostream>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "SystemCallHooks.h"
#include "databases/CombinedKey.h"
#include "logging/Log.h"
#include "network/TableServer.h"
#include "threads/Fork.h"

using namespace std::chrono_literals;

#if defined(__SANITIZE_THREAD__)
// The processes of this test begin as children of one that has threads, and start their own.
extern "C" const char* __tsan_default_options() { return "die_after_fork=0"; }
#endif

namespace {

enum Ending { kConverged, kFewerCalls, kNotConverged, kDescriptorLeft };

long HighestCall() {
#if defined(VARNIX_EMULATED)
  constexpr long kShort = 4;
#else
  constexpr long kShort = 16;
#endif
  return std::getenv("VARNIX_SOAK") != nullptr ? 1000 : kShort;
}

// Which calls fail, of those that it is asked about. "For ever" is a while: a call that is always interrupted holds up a
// stop.
class Fault {
 public:
  Fault(long first, bool for_ever) : first_(first), for_ever_(for_ever) {}

  bool Strikes() {
    const long call = ++calls_;
    if (over_ || (for_ever_ ? call < first_ : call != first_)) return false;
    if (!struck_.exchange(true)) end_ = Clock::now() + 100ms;
    return Clock::now() < end_.load();
  }
  bool HasStruck() const { return struck_; }
  void End() { over_ = true; }

 private:
  using Clock = std::chrono::system_clock;  // No call of it fails.

  const long first_;
  const bool for_ever_;
  std::atomic<long> calls_{0};
  std::atomic<bool> struck_{false};
  std::atomic<bool> over_{false};
  std::atomic<Clock::time_point> end_{Clock::time_point::max()};
};

// A second of the receive loop's pauses goes by in ten milliseconds.
int PollQuickly(pollfd* entries, nfds_t count, int time_out) {
  return Hooks().poll.Real(entries, count, time_out == 2000 ? 20 : time_out);
}

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

// A server with its two tables.
class Member {
 public:
  explicit Member(std::string process) : process_(std::move(process)) {}

  void Start() {
    server_ = std::make_unique<TableServer>(CombinedKey("dev", process_), "db", received_, sent_,
                                            "group of " + std::to_string(getppid()), inet_addr("127.255.255.255"));
  }
  void Stop() { server_.reset(); }
  void NetworkChanged() const { server_->NetworkChanged(); }
  void Set(const std::string& key, const std::string& value) const { sent_->Set({"\x01t" + key, value}); }
  bool Gets(const std::string& key, const std::string& value, std::chrono::milliseconds limit) const {
    const auto set = Varnix::MakeWatcherSet({received_->Watch("\x01t" + key)});
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
      const auto [row, changed] = set->WaitUntil(deadline);
      if (!changed || row.second == value) return changed != nullptr;
    }
  }

 private:
  const std::string process_;
  const std::shared_ptr<Varnix::Table> received_ = Varnix::MakeTable("received");
  const std::shared_ptr<Varnix::Table> sent_ = Varnix::MakeTable("sent");
  std::unique_ptr<TableServer> server_;
};

std::ptrdiff_t OpenDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
}

Ending MeetRestartAndStop(Fault& fault) {
  const std::ptrdiff_t open = OpenDescriptors();
  {
    Member left("left");
    Member right("right");
    left.Set("left", "1");
    right.Set("right", "1");
    left.Start();
    right.Start();
    right.Gets("left", "1", 30ms);  // Or not, while the fault lasts.
    right.Stop();
    right.Start();
    right.Set("right", "2");
    left.Gets("right", "2", 30ms);
    // Nobody sets these again: they must not be lost.
    left.Set("once, by left", "l");
    right.Set("once, by right", "r");
    fault.End();

    left.NetworkChanged();
    right.NetworkChanged();
    left.Set("left", "3");
    right.Set("right", "3");
    if (!left.Gets("right", "3", 20s) || !right.Gets("left", "3", 20s) || !left.Gets("once, by right", "r", 20s) ||
        !right.Gets("once, by left", "l", 20s)) {
      return kNotConverged;
    }
    left.Stop();
    right.Stop();
  }
  if (OpenDescriptors() != open) return kDescriptorLeft;
  return fault.HasStruck() ? kConverged : kFewerCalls;
}

// The body of a process.
[[noreturn]] void RunWith(const FailingCall& call, int error, long first, bool for_ever, int standard_error) {
  dup2(standard_error, STDERR_FILENO);
  alarm(60);                // A hang is an end as well.
  in_forked_child = false;  // This process is one of its own.
  static Fault& fault = *new Fault(first, for_ever);
  Hooks().poll.Set(PollQuickly);
  call.inject(fault, error);
  std::_Exit(MeetRestartAndStop(fault));
}

// How one process ended, as text for the case that it should not have.
struct Outcome {
  int status;
  std::string errors;
};

Outcome RunInAProcess(const FailingCall& call, int error, long first, bool for_ever) {
  int ends[2];
  EXPECT_EQ(Hooks().pipe.Real(ends), 0);
  const pid_t child = fork();
  if (child == 0) RunWith(call, error, first, for_ever, ends[1]);
  close(ends[1]);
  Outcome outcome{};
  char piece[4096];
  for (ssize_t size; (size = read(ends[0], piece, sizeof piece)) > 0;) {
    outcome.errors.append(piece, static_cast<std::size_t>(size));
    if (outcome.errors.size() > 100000) outcome.errors.erase(0, 50000);
  }
  close(ends[0]);
  waitpid(child, &outcome.status, 0);
  return outcome;
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
        const Outcome outcome = RunInAProcess(GetParam(), error, first, for_ever);
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
  std::printf("%s: %d runs, %d of which end the process\n", GetParam().name, runs, ends_of_process);
  EXPECT_EQ(ends_of_process > 0, !GetParam().fatal_tags.empty());
}
