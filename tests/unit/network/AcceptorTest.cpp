// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <fcntl.h>
#include <gmock/gmock.h>
#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <deque>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "Client.h"
#include "TestMember.h"
#include "network/Acceptor.h"
#include "network/PeerThreads.h"
#include "network/ServerSockets.h"
#include "support/FailWith.h"
#include "support/FakeClock.h"
#include "support/HookedHere.h"
#include "support/LogRecorder.h"
#include "support/Says.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::UnorderedElementsAre;
using Varnix::LogLevel;

const std::string kGreeting = "served";

// Runs the accept loop on the thread and on the clock of the test. A wait for which there is no result sees the stop of
// the server once every connection has been accepted.
class AcceptorTest : public testing::Test {
 protected:
  struct Wait {
    std::vector<pollfd> entries;
    int time_out;
  };

  AcceptorTest() { PeerThreads::ForgetAllInChild(); }  // When an earlier test has logged a shortage.

  Client Connect(unsigned own_address = INADDR_LOOPBACK) {
    ++connected_;
    return Client(port_, own_address);
  }
  void Run() {
    Acceptor(*member_, listener_.Get(), [this](FileDescriptor& socket, unsigned address) {
      return Serve(socket, address);
    }).Run();
  }
  void RunWithDefaultLogger() {
    SetLogHook(DefaultLogger);
    Run();
  }
  // For a pause: nothing but the stop, which comes meanwhile, ends it.
  int Stop(pollfd& done) const {
    member_.SignalDone();
    return Hooks().poll.Real(&done, 1, -1);
  }
  // How often there was a connection to be accepted.
  std::ptrdiff_t Accepts() const { return std::count(trace_.begin(), trace_.end(), "accept"); }

  FakeClock clock_;
  TestMember member_;
  unsigned short port_ = 0;
  const FileDescriptor listener_ = OpenListeningSocket(port_);
  LogRecorder log_;
  std::vector<std::string> trace_;   // "wait", "accept", "serve", "pause of 10 ms for done".
  std::vector<Wait> waits_;          // As they were asked for.
  std::vector<std::string> pauses_;  // As in `trace_`.
  std::vector<int> accept_flags_;
  std::vector<int> descriptor_flags_;  // Of the connections that are served.
  std::vector<unsigned> addresses_;    // From which they come.

  std::deque<std::function<int(pollfd* entries)>> wait_results_;
  std::deque<int> accept_errors_;
  std::deque<int> serve_errors_;
  // Of every pause. Without it, each takes its time, unless the server stops.
  std::function<int(pollfd& done)> pause_result_;

 private:
  int WaitForConnection(pollfd* entries, nfds_t count, int time_out) {
    trace_.emplace_back("wait");
    waits_.push_back({{entries, entries + count}, time_out});
    if (wait_results_.empty()) {
      // A client may be connected a moment before the listener has the connection.
      const int limit = accepted_ < connected_ ? 10000 : 0;
      if (Hooks().poll.Real(entries, count, limit) == 0) entries[0].revents = POLLIN;
      return 1;
    }
    const auto result = std::move(wait_results_.front());
    wait_results_.pop_front();
    for (nfds_t i = 0; i < count; ++i) entries[i].revents = 0;
    return result(entries);
  }
  int Pause(pollfd& entry, int time_out) {
    const bool for_done = entry.fd == member_->done_descriptor && entry.events == POLLIN;
    pauses_.push_back("pause of " + std::to_string(time_out) + " ms for " + (for_done ? "done" : "?"));
    trace_.push_back(pauses_.back());
    if (pause_result_) return pause_result_(entry);
    clock_.Advance(std::chrono::milliseconds(time_out));
    return Hooks().poll.Real(&entry, 1, 0);
  }
  int Accept(int descriptor, sockaddr* address, socklen_t* size, int flags) {
    const int accepted = Hooks().accept4.Real(descriptor, address, size, flags);
    if (accepted >= 0) ++accepted_;
    return accepted;
  }
  // Starts no thread: greets the peer and ends the connection.
  int Serve(FileDescriptor& socket, unsigned address) {
    trace_.emplace_back("serve");
    if (!serve_errors_.empty()) {
      const int error = serve_errors_.front();
      serve_errors_.pop_front();
      return error;
    }
    const FileDescriptor taken = std::move(socket);
    descriptor_flags_.push_back(Hooks().fcntl.Real(taken.Get(), F_GETFD, 0));
    addresses_.push_back(address);
    EXPECT_EQ(Hooks().send.Real(taken.Get(), kGreeting.data(), kGreeting.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(kGreeting.size()));
    return 0;
  }

  int connected_ = 0;
  int accepted_ = 0;
  HookedHere<int(pollfd*, nfds_t, int)> poll_{Hooks().poll, [this](pollfd* entries, nfds_t count, int time_out) {
                                                return count == 1 ? Pause(*entries, time_out)
                                                                  : WaitForConnection(entries, count, time_out);
                                              }};
  HookedHere<int(int, sockaddr*, socklen_t*, int)> accept4_{
      Hooks().accept4, [this](int descriptor, sockaddr* address, socklen_t* size, int flags) {
        trace_.emplace_back("accept");
        accept_flags_.push_back(flags);
        if (accept_errors_.empty()) return Accept(descriptor, address, size, flags);
        const FailWith fail{accept_errors_.front()};
        accept_errors_.pop_front();
        return fail();
      }};
};

}  // namespace

// Waiting.

TEST_F(AcceptorTest, AcceptLoopWaitsForTheDonePipeFirstAndForConnectionsWithoutLimit) {
  Run();

  ASSERT_THAT(waits_, SizeIs(1));
  ASSERT_THAT(waits_[0].entries, SizeIs(2));
  EXPECT_EQ(waits_[0].entries[0].fd, member_->done_descriptor);
  EXPECT_EQ(waits_[0].entries[0].events, POLLIN);
  EXPECT_EQ(waits_[0].entries[1].fd, listener_.Get());
  EXPECT_EQ(waits_[0].entries[1].events, POLLIN);
  EXPECT_EQ(waits_[0].time_out, -1);
}

TEST_F(AcceptorTest, InterruptedPollOfTheAcceptLoopIsRetriedSilently) {
  wait_results_ = {[](pollfd*) { return FailWith{EINTR}(); }};
  const Client peer = Connect();

  Run();

  EXPECT_EQ(peer.ReceiveUntilEnd(), kGreeting);
  EXPECT_THAT(log_.Lines("tblsvr.acc.poll"), IsEmpty());
}

TEST_F(AcceptorTest, FailedPollOfTheAcceptLoopEndsTheProcess) {
  wait_results_ = {[](pollfd*) { return FailWith{EINVAL}(); }};

  EXPECT_EXIT(RunWithDefaultLogger(), testing::KilledBySignal(SIGABRT),
              Says("tblsvr.acc.poll: TableServer: Accept::poll error 22: Invalid argument\n"));
}

TEST_F(AcceptorTest, StopWinsOverAWaitingConnection) {
  wait_results_ = {[](pollfd* entries) {
    entries[0].revents = POLLIN;
    entries[1].revents = POLLIN;
    return 2;
  }};
  const Client peer = Connect();

  Run();

  EXPECT_EQ(Accepts(), 0);
}

TEST_F(AcceptorTest, AcceptLoopPollsAgainWhenTheListenerHasNoEvent) {
  wait_results_ = {[](pollfd*) { return 0; }};

  Run();

  EXPECT_THAT(waits_, SizeIs(2));
  EXPECT_EQ(Accepts(), 0);
}

TEST_F(AcceptorTest, AnyEventOfTheListenerIsAConnection) {
  wait_results_ = {[](pollfd* entries) {
    entries[1].revents = POLLERR;
    return 1;
  }};
  accept_errors_ = {ECONNABORTED};

  Run();

  EXPECT_EQ(Accepts(), 1);
}

TEST_F(AcceptorTest, AnyEventOfTheDonePipeEndsTheAcceptLoop) {
  wait_results_ = {[](pollfd* entries) {
    entries[0].revents = POLLHUP;
    return 1;
  }};

  Run();

  EXPECT_THAT(waits_, SizeIs(1));
}

// Accepting.

TEST_F(AcceptorTest, AcceptedSocketIsClosedOnExecFromTheStart) {
  const Client peer = Connect();

  Run();

  EXPECT_EQ(peer.ReceiveUntilEnd(), kGreeting);
  EXPECT_THAT(accept_flags_, ElementsAre(SOCK_CLOEXEC));
  EXPECT_THAT(descriptor_flags_, ElementsAre(FD_CLOEXEC));
}

TEST_F(AcceptorTest, AddressOfAPeerIsHandedOnInHostByteOrder) {
  const Client peer = Connect(0x7F010203);

  Run();

  EXPECT_THAT(addresses_, ElementsAre(0x7F010203U));
}

TEST_F(AcceptorTest, AcceptThatMeetsTheStopLogsNothing) {
  wait_results_ = {[this](pollfd* entries) {
    member_.SignalDone();
    entries[1].revents = POLLHUP;  // Of the listener that the stop has shut down.
    return 1;
  }};
  accept_errors_ = {EINVAL};

  Run();

  EXPECT_EQ(Accepts(), 1);
  EXPECT_THAT(log_.Lines("tblsvr.acc.acc"), IsEmpty());
}

TEST_F(AcceptorTest, InvalidAcceptWithoutAStopIsLoggedAndTheServerGoesOn) {
  accept_errors_ = {EINVAL};
  pause_result_ = [](pollfd&) { return FailWith{EINTR}(); };  // The look for the stop leaves its own error.
  const Client peer = Connect();
  testing::internal::CaptureStderr();

  RunWithDefaultLogger();

  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "tblsvr.acc.acc: TableServer: Accept::accept error 22: Invalid argument\n");
  EXPECT_THAT(pauses_, ElementsAre("pause of 0 ms for done", "pause of 100 ms for done"));
  EXPECT_EQ(peer.ReceiveUntilEnd(), kGreeting);
}

TEST_F(AcceptorTest, FailedAcceptIsLoggedAndTheServerGoesOn) {
  accept_errors_ = {ECONNABORTED};
  const Client peer = Connect();

  Run();

  EXPECT_EQ(peer.ReceiveUntilEnd(), kGreeting);
  EXPECT_THAT(log_.Lines("tblsvr.acc.acc"),
              ElementsAre(LogLine{LogLevel::Error, "tblsvr.acc.acc", "TableServer: Accept::accept error 103", ""}));
}

// What the accept loop does after an accept that failed with a given error.
class FailedAcceptTest : public AcceptorTest, public testing::WithParamInterface<int> {
 protected:
  void RunWithOneFailure() {
    accept_errors_ = {GetParam()};
    const Client peer = Connect();
    Run();
    EXPECT_EQ(peer.ReceiveUntilEnd(), kGreeting);
  }
  std::vector<LogLine> Line() const {
    return {{LogLevel::Error, "tblsvr.acc.acc", "TableServer: Accept::accept error " + std::to_string(GetParam()), ""}};
  }
};

class AcceptWithoutResourcesTest : public FailedAcceptTest {};
INSTANTIATE_TEST_SUITE_P(Error, AcceptWithoutResourcesTest, testing::Values(EMFILE, ENFILE, ENOBUFS, ENOMEM));

TEST_P(AcceptWithoutResourcesTest, WaitsAHundredMillisecondsForTheStopBeforeItPollsAgain) {
  RunWithOneFailure();

  EXPECT_THAT(trace_, ElementsAre("wait", "accept", "pause of 100 ms for done", "wait", "accept", "serve", "wait"));
  EXPECT_EQ(log_.Lines("tblsvr.acc.acc"), Line());
}

class AcceptOfALostConnectionTest : public FailedAcceptTest {};
INSTANTIATE_TEST_SUITE_P(Error, AcceptOfALostConnectionTest, testing::Values(ECONNABORTED, EINTR, EPROTO, EPERM));

TEST_P(AcceptOfALostConnectionTest, IsFollowedByTheNextPollAtOnce) {
  RunWithOneFailure();

  EXPECT_THAT(trace_, ElementsAre("wait", "accept", "wait", "accept", "serve", "wait"));
  EXPECT_EQ(log_.Lines("tblsvr.acc.acc"), Line());
}

TEST_F(AcceptorTest, StopEndsThePauseOfTheAcceptLoop) {
  accept_errors_.assign(10, EMFILE);
  pause_result_ = [this](pollfd& done) { return Stop(done); };
  const Client peer = Connect();

  Run();

  EXPECT_THAT(pauses_, ElementsAre("pause of 100 ms for done"));
}

TEST_F(AcceptorTest, InterruptedPauseOfTheAcceptLoopIsOverlooked) {
  accept_errors_ = {EMFILE};
  pause_result_ = [](pollfd&) { return FailWith{EINTR}(); };
  const Client peer = Connect();

  Run();

  EXPECT_EQ(peer.ReceiveUntilEnd(), kGreeting);
  EXPECT_THAT(log_.Tags(), Not(Contains("tblsvr.acc.poll")));
}

// Connections for which there is no thread.

TEST_F(AcceptorTest, ConnectionWithoutAThreadIsTriedAgainForAHundredMilliseconds) {
  serve_errors_.assign(10, EAGAIN);
  const Client peer = Connect();

  Run();

  EXPECT_TRUE(peer.IsEnded());
  EXPECT_EQ(pauses_, std::vector<std::string>(9, "pause of 10 ms for done"));
}

TEST_F(AcceptorTest, ConnectionThatFindsAThreadWithinAHundredMillisecondsIsServed) {
  serve_errors_.assign(9, EAGAIN);
  const Client peer = Connect();

  Run();

  EXPECT_EQ(peer.ReceiveUntilEnd(), kGreeting);
  EXPECT_THAT(log_.Tags(), Not(Contains("tblsvr.acc.thread")));
}

TEST_F(AcceptorTest, ConnectionsForWhichThereIsNoThreadAreLoggedOnceForEachShortage) {
  for (std::size_t shortage = 1; shortage <= 2; ++shortage) {
    serve_errors_.assign(20, EAGAIN);
    const Client one = Connect();
    const Client another = Connect();
    const Client third = Connect();

    Run();

    EXPECT_THAT((std::vector<std::string>{one.ReceiveUntilEnd(), another.ReceiveUntilEnd(), third.ReceiveUntilEnd()}),
                UnorderedElementsAre("", "", kGreeting));
    EXPECT_THAT(log_.Lines("tblsvr.acc.thread"), SizeIs(shortage));
  }
}

TEST_F(AcceptorTest, StopEndsTheTriesForAConnection) {
  serve_errors_.assign(10, EAGAIN);
  pause_result_ = [this](pollfd& done) { return Stop(done); };
  const Client peer = Connect();

  Run();

  EXPECT_TRUE(peer.IsEnded());
  EXPECT_THAT(pauses_, ElementsAre("pause of 10 ms for done"));
}

TEST_F(AcceptorTest, ServerGoesOnAfterAConnectionForWhichThereWasNoThread) {
  serve_errors_.assign(10, EAGAIN);
  const Client one = Connect();
  const Client other = Connect();

  Run();

  EXPECT_THAT((std::vector<std::string>{one.ReceiveUntilEnd(), other.ReceiveUntilEnd()}),
              UnorderedElementsAre("", kGreeting));
}
