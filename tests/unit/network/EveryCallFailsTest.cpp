// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Two servers meet, hand rows over, restart and stop, while the n-th of the calls of one kind fails, or all from the
// n-th on: for every n, every call and every error that it can give. Each time is a process of its own. A failure that
// is to end the process must do so, with its line as the last; after all others everything works once the fault is
// over. With fewer than n calls, n grows no more.
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <new>
#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "TwoServers.h"
#include "logging/Log.h"
#include "support/SystemCallHooks.h"

using namespace std::chrono_literals;

namespace {

bool IsSoak() { return ByPatience(0, 0, 1) != 0; }

long HighestCall() { return ByPatience(4, 16, 1000); }

// Where a fault begins that lasts makes little difference.
long StepOfLastingFaults(long first) { return IsSoak() ? 1 : 1 + first / 4; }

constexpr long kCallsOfEveryKind = 16;  // With fewer, not each kind of server, stream and wait has its turn.

const std::string kMustEnd = "must end: ";

// Of the process under test: the lines with one of which it must end, as they come on standard error. It tells them
// there, too.
class LastLines {
 public:
  void Add(const std::string& line) {
    const std::string told = kMustEnd + line + "\n";
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!lines_.insert(line).second) return;
    EXPECT_EQ(Hooks().write.Real(STDERR_FILENO, told.data(), told.size()), static_cast<ssize_t>(told.size()));
  }
  bool Have(const std::string& line) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return lines_.count(line) != 0;
  }

 private:
  mutable std::mutex mutex_;
  std::set<std::string> lines_;
};

LastLines& LinesToEndWith() {
  static LastLines& lines = *new LastLines;
  return lines;
}

thread_local bool is_sender = false;  // This thread serves a peer.

// As the log hook: no thread says anything more once one has said with what the process ends.
void LogUpToTheLastLine(Varnix::LogLevel level, const char* tag, const char* format, va_list arguments) {
  static bool said = false;
  is_sender = is_sender || std::strcmp(tag, "tblsndr.ctor") == 0;
  if (said || level != Varnix::LogLevel::Error) return;
  const int error = errno;
  char text[1024];
  va_list copy;
  va_copy(copy, arguments);
  std::vsnprintf(text, sizeof text, format, copy);
  va_end(copy);
  errno = error;
  DefaultLogger(level, tag, format, arguments);
  said = LinesToEndWith().Have(std::string(tag) + ": " + text + ": " + std::strerror(error));
}

// `line` is the tag and the text with which a call that fails ends the process; null if it must not.
void ExpectEnd(const char* line, int error) {
  if (line == nullptr) return;
  char text[200];
  std::snprintf(text, sizeof text, line, error);
  LinesToEndWith().Add(std::string(text) + ": " + std::strerror(error));
}

// `line_of` is asked about each call, of which it gets the arguments.
template <class Result, class... Arguments, class LineOf>
void Inject(Hook<Result(Arguments...)>& hook, Fault& fault, int error, Result failure, LineOf line_of) {
  hook.Set([&hook, &fault, error, failure, line_of](Arguments... arguments) mutable -> Result {
    const char* const line = line_of(arguments...);
    if (!fault.Strikes()) return hook.Real(arguments...);
    ExpectEnd(line, error);
    errno = error;
    return failure;
  });
}

// The line for each call: always the same, or none.
struct AlwaysLine {
  const char* line;

  template <class... Arguments>
  const char* operator()(Arguments...) const {
    return line;
  }
};

// The first thread makes the servers.
bool IsMakingAServer() { return gettid() == getpid(); }

const char* LineOfSocket(int, int type, int) {
  if ((type & ~SOCK_CLOEXEC) == SOCK_DGRAM) return "tblsvr.dscv.sock: TableServer: discover socket error %d";
  return IsMakingAServer() ? "tblsvr.lstn.sock: TableServer: listen socket error %d"
                           : "tblrcvr.sock: TableReceiver: socket error %d";
}

// A receiver asks, too, and goes on.
const char* LineOfGetsockname(int, sockaddr*, socklen_t*) {
  return IsMakingAServer() ? "tblsvr.lstn.name: TableServer: getsockname error %d" : nullptr;
}

const char* LineOfBind(int descriptor, const sockaddr*, socklen_t) {
  int type = 0;
  socklen_t size = sizeof type;
  Hooks().getsockopt.Real(descriptor, SOL_SOCKET, SO_TYPE, &type, &size);
  return type == SOCK_DGRAM ? "tblsvr.dscv.bind: TableServer: discover bind error %d"
                            : "tblsvr.lstn.bind: TableServer: listener bind error %d";
}

const char* LineOfSetsockopt(int, int level, int option, const void*, socklen_t) {
  if (level != SOL_SOCKET) return nullptr;
  if (option == SO_BROADCAST) return "tblsvr.dscv.opt.bcast: TableServer: setsockopt broadcast error %d";
  if (option == SO_REUSEADDR) return "tblsvr.dscv.opt.reuse: TableServer: setsockopt reuseaddr error %d";
  return nullptr;
}

// Every server makes its done pipe, and then its wake pipe.
auto LinesOfPipe() {
  return [of_wake = true](int*, int) mutable {
    of_wake = !of_wake;
    return of_wake ? "tblsvr.pipe.wake: TableServer: wake pipe error %d"
                   : "tblsvr.pipe.done: TableServer: done pipe error %d";
  };
}

bool IsListening(int descriptor) {
  int listening = 0;
  socklen_t size = sizeof listening;
  return Hooks().getsockopt.Real(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) == 0 && listening != 0;
}

const char* LineOfPoll(const pollfd* entries, nfds_t count, int time_out) {
  if (count == 3) return "tblsvr.dscv.poll: TableServer: Discover::poll error %d";
  const bool is_for_ever = count == 2 && time_out < 0;  // Neither a pause, nor a look at a connection, nor a connect.
  if (!is_for_ever) return nullptr;
  if (entries[1].events == POLLOUT) return "cook.wr.poll: Cookie::Write: poll error %d";
  return IsListening(entries[1].fd) ? "tblsvr.acc.poll: TableServer: Accept::poll error %d"
                                    : "cook.rd.poll: Cookie::Read: poll error %d";
}

void FailPoll(Fault& fault, int error) {
  Hooks().poll.Set([&fault, error](pollfd* entries, nfds_t count, int time_out) {
    if (!fault.Strikes()) return PollQuickly(entries, count, time_out);
    if (error != EINTR) ExpectEnd(LineOfPoll(entries, count, time_out), error);
    errno = error;
    return -1;
  });
}

const char* LineOfFopencookie(void*, const char*, cookie_io_functions_t) {
  return is_sender ? "tblsndr.cook.fopen: TableSender: fopencookie failed" : nullptr;
}

// The connection fails after all, and the socket tells why.
void FailConnectInProgress(Fault& fault, int error) {
  Hooks().getsockopt.Set([&fault, error](int descriptor, int level, int option, void* value, socklen_t* size) {
    const int result = Hooks().getsockopt.Real(descriptor, level, option, value, size);
    if (fault.Strikes()) *static_cast<int*>(value) = error;
    return result;
  });
}

// The byte of a change is lost. That of a stop is written, though the call says otherwise: without it, the stop would
// wait for ever.
void FailWrite(Fault& fault, int error) {
  Hooks().write.Set([&fault, error](int descriptor, const void* bytes, std::size_t size) -> ssize_t {
    const bool strikes = fault.Strikes();
    const bool lost = strikes && *static_cast<const char*>(bytes) == 'W';
    const ssize_t result = lost ? -1 : Hooks().write.Real(descriptor, bytes, size);
    if (!strikes) return result;
    errno = error;
    return -1;
  });
}

// Linux frees the number of the descriptor, whatever close() says then. Whoever closes it again may hit another's.
void FailClose(Fault& fault, int error) {
  Hooks().close.Set([&fault, error](int descriptor) {
    if (Hooks().close.Real(descriptor) != 0) {
      std::perror("close");
      std::abort();
    }
    if (!fault.Strikes()) return 0;
    errno = error;
    return -1;
  });
}

void FailStartOfThreads(Fault& fault, int error) {
  Hooks().start_thread.Set([&fault, error] {
    if (!fault.Strikes()) return;
    if (error == ENOMEM) throw std::bad_alloc();
    throw std::system_error(error, std::generic_category());
  });
}

struct FailingCall {
  const char* name;
  std::function<void(Fault& fault, int error)> inject;
  std::vector<int> errors;
  std::vector<int> errors_alike;    // They take the ways of the others.
  std::set<std::string> last_tags;  // Of the lines with which the process ends.
};

void PrintTo(const FailingCall& call, std::ostream* out) { *out << call.name; }

const std::vector<FailingCall>& FailingCalls() {
  static const std::vector<FailingCall> calls = {
      {"socket",
       [](Fault& fault, int error) { Inject(Hooks().socket, fault, error, -1, LineOfSocket); },
       {EMFILE},
       {ENFILE, ENOBUFS, ENOMEM, EACCES},
       {"tblsvr.lstn.sock", "tblsvr.dscv.sock", "tblrcvr.sock"}},
      {"bind",
       [](Fault& fault, int error) { Inject(Hooks().bind, fault, error, -1, LineOfBind); },
       {EADDRINUSE},
       {EACCES, ENOBUFS, ENOMEM},
       {"tblsvr.lstn.bind", "tblsvr.dscv.bind"}},
      {"listen",
       [](Fault& fault, int error) {
         Inject(Hooks().listen, fault, error, -1, AlwaysLine{"tblsvr.lstn.lstn: TableServer: listen error %d"});
       },
       {EADDRINUSE},
       {},
       {"tblsvr.lstn.lstn"}},
      {"getsockname",
       [](Fault& fault, int error) { Inject(Hooks().getsockname, fault, error, -1, LineOfGetsockname); },
       {ENOBUFS},
       {},
       {"tblsvr.lstn.name"}},
      {"pipe",
       [](Fault& fault, int error) { Inject(Hooks().pipe2, fault, error, -1, LinesOfPipe()); },
       {EMFILE},
       {ENFILE, ENOMEM},
       {"tblsvr.pipe.done", "tblsvr.pipe.wake"}},
      {"setsockopt",
       [](Fault& fault, int error) { Inject(Hooks().setsockopt, fault, error, -1, LineOfSetsockopt); },
       {ENOPROTOOPT},
       {ENOBUFS, ENOMEM},
       {"tblsvr.dscv.opt.bcast", "tblsvr.dscv.opt.reuse"}},
      {"fopencookie",
       [](Fault& fault, int error) { Inject<FILE*>(Hooks().fopencookie, fault, error, nullptr, LineOfFopencookie); },
       {ENOMEM},
       {},
       {"tblsndr.cook.fopen"}},
      {"poll",
       FailPoll,
       {ENOMEM, EINTR},
       {EINVAL},
       {"tblsvr.dscv.poll", "tblsvr.acc.poll", "cook.rd.poll", "cook.wr.poll"}},
      {"read",
       [](Fault& fault, int error) {
         Inject(Hooks().read, fault, error, ssize_t{-1},
                AlwaysLine{"tblsvr.dscv.done.rd: TableServer: Discover::poll done pipe read error %d"});
       },
       {EINTR},
       {EIO},
       {"tblsvr.dscv.done.rd"}},
      {"send",
       [](Fault& fault, int error) {
         Inject(Hooks().send, fault, error, ssize_t{-1},
                AlwaysLine{error == EAGAIN ? "cook.wr.wr: Cookie::Write: send error %d" : nullptr});
       },
       {EPIPE, EAGAIN, EINTR},
       {ECONNRESET, ENOBUFS, ENOMEM, ETIMEDOUT, EHOSTUNREACH, ENETUNREACH},
       {"cook.wr.wr"}},
      {"recv",
       [](Fault& fault, int error) { Inject(Hooks().recv, fault, error, ssize_t{-1}, AlwaysLine{nullptr}); },
       {ECONNRESET, EINTR},
       {EAGAIN, ETIMEDOUT, EHOSTUNREACH, ENETUNREACH, ENOMEM},
       {}},
      {"sendto",
       [](Fault& fault, int error) { Inject(Hooks().sendto, fault, error, ssize_t{-1}, AlwaysLine{nullptr}); },
       {ENETUNREACH, EINTR},
       {EHOSTUNREACH, ENETDOWN, EPERM, EACCES, EMSGSIZE, EAGAIN, ENOBUFS, ENOMEM},
       {}},
      {"recvfrom",
       [](Fault& fault, int error) { Inject(Hooks().recvfrom, fault, error, ssize_t{-1}, AlwaysLine{nullptr}); },
       {ENOMEM},
       {EINTR, ENETDOWN},
       {}},
      {"accept",
       [](Fault& fault, int error) { Inject(Hooks().accept4, fault, error, -1, AlwaysLine{nullptr}); },
       {EMFILE, ECONNABORTED},
       // A connection that waits may have an error of the network.
       {EINTR, ENFILE, ENOBUFS, ENOMEM, EPERM, EPROTO, ENETDOWN, EHOSTDOWN, ENOPROTOOPT, EOPNOTSUPP, EHOSTUNREACH,
        ENETUNREACH},
       {}},
      {"connect",
       [](Fault& fault, int error) { Inject(Hooks().connect, fault, error, -1, AlwaysLine{nullptr}); },
       {ECONNREFUSED},
       {EINTR, ENETUNREACH, EHOSTUNREACH, EADDRNOTAVAIL, EACCES, EPERM, ETIMEDOUT},
       {}},
      {"getsockopt",
       [](Fault& fault, int error) { Inject(Hooks().getsockopt, fault, error, -1, AlwaysLine{nullptr}); },
       {ENOBUFS},
       {},
       {}},
      {"connect_in_progress", FailConnectInProgress, {ECONNREFUSED}, {EHOSTUNREACH, ENETUNREACH, ETIMEDOUT}, {}},
      {"fcntl",
       [](Fault& fault, int error) { Inject(Hooks().fcntl, fault, error, -1, AlwaysLine{nullptr}); },
       {ENOMEM},
       {},
       {}},
      {"write", FailWrite, {EPIPE}, {EINTR, EAGAIN}, {}},
      {"close", FailClose, {EINTR}, {EIO}, {}},
      {"start_thread", FailStartOfThreads, {EAGAIN, EINVAL}, {ENOMEM}, {}},
  };
  return calls;
}

// What a process said but for the lines that it must end with, which are in `must_end_with`.
struct Said {
  explicit Said(const std::string& errors) {
    std::istringstream stream(errors);
    for (std::string line; std::getline(stream, line);) {
      if (line.rfind(kMustEnd, 0) == 0) {
        must_end_with.insert(line.substr(kMustEnd.size()));
      } else if (line.rfind("qemu: ", 0) != 0) {
        last = line;
      }
    }
  }

  std::set<std::string> must_end_with;
  std::string last;
};

bool IsAborted(const Outcome& outcome) { return WIFSIGNALED(outcome.status) && WTERMSIG(outcome.status) == SIGABRT; }

bool HasEnding(const Outcome& outcome, Ending ending) {
  return WIFEXITED(outcome.status) && WEXITSTATUS(outcome.status) == ending;
}

std::string Describe(const Outcome& outcome) {
  const std::string end = WIFEXITED(outcome.status) ? "ending " + std::to_string(WEXITSTATUS(outcome.status))
                                                    : "signal " + std::to_string(WTERMSIG(outcome.status));
  return end + "\n" + outcome.errors;
}

class EveryCallFailsTest : public testing::TestWithParam<FailingCall> {
 protected:
  void FailFromEveryCall(int error, bool for_ever) {
    long first = 1;
    for (; first <= HighestCall(); first += for_ever ? StepOfLastingFaults(first) : 1) {
      if (HasFailure() || !GoesAsItMust(error, for_ever, first)) return;
      highest_ = std::max(highest_, first);
    }
    if (!for_ever) capped_ = true;
  }
  // Each of the errors, and once each of the calls.
  void FailInTurn(const std::vector<int>& errors, bool for_ever) {
    const std::size_t calls = static_cast<std::size_t>(std::max(highest_, 1L));
    const std::size_t turns = errors.empty() || for_ever ? errors.size() : std::max(errors.size(), calls);
    for (std::size_t turn = 0; turn < turns && !HasFailure(); ++turn) {
      GoesAsItMust(errors[turn % errors.size()], for_ever, static_cast<long>(1 + turn % calls));
    }
  }
  // Which kinds are among the first calls is a matter of the threads' turns.
  void FailUntilEveryLineWasTheLast() {
    for (const int error : GetParam().errors) {
      long first = HighestCall() + 1;
      while (!HasFailure() && last_tags_ != GetParam().last_tags && GoesAsItMust(error, false, first)) ++first;
    }
  }
  // False when there were fewer calls than that.
  bool GoesAsItMust(int error, bool for_ever, long first) {
    SCOPED_TRACE("error " + std::to_string(error) + " from call " + std::to_string(first) +
                 (for_ever ? " on" : " alone"));
    const Outcome outcome = RunTwoServers(first, for_ever, 30ms, [&](Fault& fault) {
      SetLogHook(LogUpToTheLastLine);
      GetParam().inject(fault, error);
    });
    ++runs_;
    const Said said(outcome.errors);
    if (said.must_end_with.empty()) {
      EXPECT_TRUE(HasEnding(outcome, kConverged) || HasEnding(outcome, kFewerCalls)) << Describe(outcome);
    } else {
      ++ends_of_process_;
      last_tags_.insert(said.last.substr(0, said.last.find(':')));
      EXPECT_TRUE(IsAborted(outcome)) << Describe(outcome);
      EXPECT_THAT(said.must_end_with, testing::Contains(said.last)) << Describe(outcome);
    }
    return !HasEnding(outcome, kFewerCalls);
  }

  long highest_ = 0;
  bool capped_ = false;
  int runs_ = 0;
  int ends_of_process_ = 0;
  std::set<std::string> last_tags_;
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(Call, EveryCallFailsTest, testing::ValuesIn(FailingCalls()),
                         [](const auto& parameter) { return std::string(parameter.param.name); });

TEST_P(EveryCallFailsTest, OnceOrForEverAndAllIsWellAfterwardsOrTheProcessEnds) {
  for (const bool for_ever : {false, true}) {
    for (const int error : GetParam().errors) FailFromEveryCall(error, for_ever);
    if (IsSoak()) {
      for (const int error : GetParam().errors_alike) FailFromEveryCall(error, for_ever);
    } else {
      FailInTurn(GetParam().errors_alike, for_ever);
    }
  }
  if (HighestCall() >= kCallsOfEveryKind) FailUntilEveryLineWasTheLast();
  RecordProperty("runs", runs_);
  RecordProperty("ends_of_process", ends_of_process_);
  std::printf("figure: %s fails: %d runs, %d of which end the process, up to call %ld%s\n", GetParam().name, runs_,
              ends_of_process_, highest_, capped_ ? ", and there are more" : " of all");
  EXPECT_GT(highest_, 0) << "there is no such call";
  EXPECT_THAT(GetParam().last_tags, testing::IsSupersetOf(last_tags_));
  EXPECT_EQ(last_tags_.empty(), GetParam().last_tags.empty());
  if (HighestCall() >= kCallsOfEveryKind) {
    EXPECT_EQ(last_tags_, GetParam().last_tags);
  }
  EXPECT_FALSE(IsSoak() && capped_) << "there are more calls";
}
