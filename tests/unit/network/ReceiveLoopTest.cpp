// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gmock/gmock.h>

#include <csignal>
#include <cstring>
#include <deque>
#include <optional>
#include <stdexcept>
#include <vector>

#include "PeerSocket.h"
#include "RecordingTable.h"
#include "Records.h"
#include "Registration.h"
#include "TestMember.h"
#include "network/ActiveESNs.h"
#include "network/ReceiveLoop.h"
#include "support/Bytes.h"
#include "support/FailWith.h"
#include "support/FakeClock.h"
#include "support/HookedHere.h"
#include "support/LogRecorder.h"

using namespace std::chrono_literals;

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::KilledBySignal;
using Varnix::LogLevel;

// Runs the loop towards 224.1.2.3:4660, a number above 2^31 that no connection ever leaves for, on the thread and on
// the clock of the test.
class ReceiveLoopTest : public testing::Test {
 protected:
  using Pause = std::function<int(pollfd& done)>;

  void Run() { ReceiveLoop(*member_, {{0xE0010203, 4660}, clock_.Now() - waited_}, esns_, member_.FoundPeer()).Run(); }
  // Each attempt fails to connect after its time. During the one that follows the last, the server begins to stop.
  void RunWithFailuresAfter(const std::vector<std::chrono::nanoseconds>& times) {
    failures_.assign(times.begin(), times.end());
    Run();
  }
  // Every attempt is a connection to a peer that says this.
  void RunWithPeer(const std::string& says, bool ends = true) {
    peer_.says = says;
    peer_.ends = ends;
    connects_ = true;
    Run();
  }

  // The peer is met at 127.0.0.1:9, too, while it is received from.
  void RefuseElsewhere() const {
    std::optional<PeerPlace> nothing;
    EXPECT_FALSE(EsnRegistration(esns_, "\x04peerproc", {INADDR_LOOPBACK, 9}, nothing).Inserted());
  }

  static Pause FailsWith(int error) {
    return [error](pollfd&) { return FailWith{error}(); };
  }
  static Pause SeesOfDonePipe(short events) {
    return [events](pollfd& done) {
      done.revents = events;
      return 1;
    };
  }

  // Lines of the loop.
  LogLine Retrying(const std::string& milliseconds) const {
    return {LogLevel::Info, "tblsvr.fnd.rcv.err",
            Server() + " error from ReceiveTable for 3758162435:4660, retrying for " + milliseconds, ""};
  }
  LogLine GivingUp() const {
    return {LogLevel::Info, "tblsvr.fnd.rcv.err.fail", Server() + " giving up ReceiveTable for 3758162435:4660 retries",
            ""};
  }
  LogLine AbortedWhileRetrying() const {
    return {LogLevel::Info, "tblsvr.fnd.rcv.err.abort", Server() + " aborted while retrying ReceiveTable", ""};
  }
  LogLine Aborting() const {
    return {LogLevel::Info, "tblsvr.fnd.rcv.abort", Server() + " aborting ReceiveTable for 3758162435:4660", ""};
  }
  LogLine WrongTableServer() const {
    return {LogLevel::Debug, "tblsvr.fnd.rcv.abort.svr",
            Server() + " aborting ReceiveTable for 3758162435:4660 because connected to wrong table server", ""};
  }
  std::string Server() const { return member_.Name(member_name_); }
  // What the loop itself has logged, not its streams.
  std::vector<LogLine> Lines() const {
    std::vector<LogLine> lines;
    for (const LogLine& line : log_.Lines()) {
      if (line.tag.rfind("tblsvr.fnd.rcv", 0) == 0 || line.tag == "tblsvr.fp.poll") lines.push_back(line);
    }
    return lines;
  }

  FakeClock clock_;
  std::chrono::nanoseconds waited_{0};  // So long ago the place was found.
  std::string member_name_ = "dev::proc::db";
  TestMember member_;
  const std::shared_ptr<ActiveESNs> esns_ = std::make_shared<ActiveESNs>([] {});
  PeerSocket peer_;
  LogRecorder log_;
  std::vector<std::string> trace_;   // "0ms: try", "0ms: pause 2000": what was done when.
  std::vector<pollfd> pauses_;       // As they were asked for.
  std::deque<Pause> pause_results_;  // Those after the last end with the stop of the server or after two seconds.
  std::vector<int> connect_limits_;

 private:
  void Trace(const std::string& call) { trace_.push_back(clock_.Text() + ": " + call); }
  int FailToConnect() {
    if (failures_.empty()) {
      member_.SignalDone();
    } else {
      clock_.Advance(failures_.front());
      failures_.pop_front();
    }
    return FailWith{ECONNREFUSED}();
  }
  int EndPause(pollfd& done) {
    if (Hooks().poll.Real(&done, 1, 0) == 1) return 1;
    clock_.Advance(2s);
    return 0;
  }

  bool connects_ = false;
  std::deque<std::chrono::nanoseconds> failures_;
  HookedHere<int(int, const sockaddr*, socklen_t)> connect_{
      Hooks().connect, [this](int descriptor, const sockaddr*, socklen_t) {
        Trace("try");
        return connects_ ? peer_.Connect(descriptor) : FailToConnect();
      }};
  HookedHere<int(pollfd*, nfds_t, int)> poll_{Hooks().poll, [this](pollfd* entries, nfds_t count, int time_out) {
                                                if (count != 1) {
                                                  if (entries[1].events == POLLOUT && time_out >= 0)
                                                    connect_limits_.push_back(time_out);
                                                  return Hooks().poll.Real(entries, count, time_out);
                                                }
                                                Trace("pause " + std::to_string(time_out));
                                                pauses_.push_back(entries[0]);
                                                if (pause_results_.empty()) return EndPause(entries[0]);
                                                const Pause pause = std::move(pause_results_.front());
                                                pause_results_.pop_front();
                                                return pause(entries[0]);
                                              }};
};

const std::string kOtherDatabase = Bytes(
    "\x00\x20\x00\x09"
    "dc"
    "\x04peerproc");

}  // namespace

// Retrying.

TEST_F(ReceiveLoopTest, QuickFailureIsTriedAgainAfterAPauseOfTwoSeconds) {
  RunWithFailuresAfter({0s, 0s});

  EXPECT_THAT(trace_, ElementsAre("0ms: try", "0ms: pause 2000", "2000ms: try", "2000ms: pause 2000", "4000ms: try",
                                  "4000ms: pause 2000"));
}

TEST_F(ReceiveLoopTest, EachRetryTellsTheRestOfTheRetryPeriod) {
  RunWithFailuresAfter({0s, 500ms});

  EXPECT_THAT(Lines(), ElementsAre(Retrying("30000ms"), Retrying("27500ms"), Retrying("25500ms"),
                                   AbortedWhileRetrying(), Aborting()));
}

TEST_F(ReceiveLoopTest, RetryPeriodBeginsWhenThePlaceIsFound) {
  waited_ = 27s;

  RunWithFailuresAfter({0s, 0s, 0s});

  EXPECT_THAT(Lines(), ElementsAre(Retrying("3000ms"), Retrying("1000ms"), GivingUp()));
}

TEST_F(ReceiveLoopTest, RestOfTheRetryPeriodIsCutToWholeMilliseconds) {
  RunWithFailuresAfter({1ns});

  EXPECT_EQ(Lines().front(), Retrying("29999ms"));
}

TEST_F(ReceiveLoopTest, PauseWatchesTheDonePipeAlone) {
  RunWithFailuresAfter({0s});

  ASSERT_FALSE(pauses_.empty());
  EXPECT_EQ(pauses_[0].fd, member_->done_descriptor);
  EXPECT_EQ(pauses_[0].events, POLLIN);
}

TEST_F(ReceiveLoopTest, PeerThatDropsEachConnectionIsGivenUpAfterThirtySeconds) {
  RunWithPeer("");

  EXPECT_THAT(Lines(), ElementsAre(Retrying("30000ms"), Retrying("28000ms"), Retrying("26000ms"), Retrying("24000ms"),
                                   Retrying("22000ms"), Retrying("20000ms"), Retrying("18000ms"), Retrying("16000ms"),
                                   Retrying("14000ms"), Retrying("12000ms"), Retrying("10000ms"), Retrying("8000ms"),
                                   Retrying("6000ms"), Retrying("4000ms"), Retrying("2000ms"), GivingUp()));
  EXPECT_EQ(trace_.back(), "30000ms: try");
}

TEST_F(ReceiveLoopTest, AttemptOfJustUnderOneSecondIsFollowedByAPause) {
  RunWithFailuresAfter({1s - 1ns});

  EXPECT_THAT(trace_, ElementsAre("0ms: try", "999ms: pause 2000", "2999ms: try", "2999ms: pause 2000"));
}

TEST_F(ReceiveLoopTest, AttemptOfExactlyOneSecondIsTriedAgainAtOnce) {
  RunWithFailuresAfter({1s});

  EXPECT_THAT(trace_, ElementsAre("0ms: try", "1000ms: try", "1000ms: pause 2000"));
}

TEST_F(ReceiveLoopTest, AttemptOfJustUnderNineSecondsIsTriedAgainInTheSamePeriod) {
  RunWithFailuresAfter({9s - 1ns});

  EXPECT_THAT(trace_, ElementsAre("0ms: try", "8999ms: try", "8999ms: pause 2000"));
  EXPECT_EQ(Lines().front(), Retrying("21000ms"));
}

TEST_F(ReceiveLoopTest, AttemptOfExactlyNineSecondsOpensAFreshPeriod) {
  RunWithFailuresAfter({9s});

  EXPECT_THAT(trace_, ElementsAre("0ms: try", "9000ms: try", "9000ms: pause 2000"));
  EXPECT_EQ(Lines().front(), Retrying("30000ms"));
}

TEST_F(ReceiveLoopTest, StreamOfTenSecondsIsTriedAgainAtOnceForThirtySeconds) {
  RunWithFailuresAfter({10s});

  EXPECT_THAT(trace_, ElementsAre("0ms: try", "10000ms: try", "10000ms: pause 2000"));
  EXPECT_EQ(Lines().front(), Retrying("30000ms"));
}

TEST_F(ReceiveLoopTest, FreshPeriodCountsFromTheEndOfTheStream) {
  RunWithFailuresAfter({10s, 3s});

  EXPECT_THAT(Lines(), ElementsAre(Retrying("30000ms"), Retrying("27000ms"), Retrying("27000ms"),
                                   AbortedWhileRetrying(), Aborting()));
}

TEST_F(ReceiveLoopTest, LongStreamThatEndsAfterThePeriodIsNotGivenUp) {
  RunWithFailuresAfter({3600s});

  EXPECT_EQ(Lines().front(), Retrying("30000ms"));
}

TEST_F(ReceiveLoopTest, FailureThatEndsWithThePeriodIsGivenUp) {
  RunWithFailuresAfter({8s, 8s, 8s, 6s});

  EXPECT_THAT(Lines(), ElementsAre(Retrying("22000ms"), Retrying("14000ms"), Retrying("6000ms"), GivingUp()));
}

TEST_F(ReceiveLoopTest, FailureThatEndsANanosecondBeforeThePeriodIsTriedAgain) {
  RunWithFailuresAfter({8s, 8s, 8s, 6s - 1ns, 1ns});

  EXPECT_THAT(Lines(),
              ElementsAre(Retrying("22000ms"), Retrying("14000ms"), Retrying("6000ms"), Retrying("0ms"), GivingUp()));
}

TEST_F(ReceiveLoopTest, EachAttemptMayTakeFiveSecondsToConnect) {
  RunWithPeer(kRecordOfUs);

  EXPECT_THAT(connect_limits_, ElementsAre(5000));
}

// The pause.

TEST_F(ReceiveLoopTest, InterruptedPauseIsFollowedByTheNextAttemptAtOnce) {
  pause_results_ = {FailsWith(EINTR)};

  RunWithFailuresAfter({0s});

  EXPECT_THAT(trace_, ElementsAre("0ms: try", "0ms: pause 2000", "0ms: try", "0ms: pause 2000"));
}

TEST_F(ReceiveLoopTest, PauseThatFailsIsLoggedAndEndsTheLoop) {
  pause_results_ = {FailsWith(EINVAL)};

  RunWithFailuresAfter({0s});

  EXPECT_THAT(Lines(), ElementsAre(Retrying("30000ms"), LogLine{LogLevel::Error, "tblsvr.fp.poll",
                                                                "TableServer: FoundPeer::poll error 22", ""}));
  EXPECT_THAT(trace_, ElementsAre("0ms: try", "0ms: pause 2000"));
}

TEST_F(ReceiveLoopTest, StopDuringThePauseEndsTheLoopWithTwoLines) {
  pause_results_ = {SeesOfDonePipe(POLLIN)};

  RunWithFailuresAfter({0s});

  EXPECT_THAT(Lines(), ElementsAre(Retrying("30000ms"), AbortedWhileRetrying(), Aborting()));
  EXPECT_THAT(trace_, ElementsAre("0ms: try", "0ms: pause 2000"));
}

TEST_F(ReceiveLoopTest, AnyEventOfTheDonePipeIsTheStop) {
  pause_results_ = {SeesOfDonePipe(POLLHUP)};

  RunWithFailuresAfter({0s});

  EXPECT_THAT(Lines(), ElementsAre(Retrying("30000ms"), AbortedWhileRetrying(), Aborting()));
}

// Another place.

TEST_F(ReceiveLoopTest, PlaceAtWhichThePeerWasRefusedIsReportedWhenTheStreamEnds) {
  pause_results_ = {SeesOfDonePipe(POLLIN)};
  SetLogHook([this](LogLevel, const char* tag, const char*, va_list) {
    if (tag == std::string("tblrcvr.strm.grp")) RefuseElsewhere();
    if (tag == std::string("tblrcvr.dtor")) {
      EXPECT_THAT(member_.FoundPeers(), IsEmpty());
    }
  });

  RunWithPeer(kRecordOfPeer);

  EXPECT_THAT(member_.FoundPeers(), ElementsAre("2130706433:9"));
}

TEST_F(ReceiveLoopTest, PlaceAtWhichThePeerWasRefusedIsReportedAlsoAfterTheLastAttempt) {
  SetLogHook([this](LogLevel, const char* tag, const char*, va_list) {
    if (tag == std::string("tblrcvr.strm.grp") && clock_.Text() == "30000ms") RefuseElsewhere();
  });

  RunWithPeer(kRecordOfPeer);

  EXPECT_EQ(trace_.back(), "30000ms: try");
  EXPECT_THAT(member_.FoundPeers(), ElementsAre("2130706433:9"));
}

TEST_F(ReceiveLoopTest, PlaceAtWhichThePeerWasRefusedIsLeftAloneWhenTheServerStops) {
  const auto table = std::make_shared<RecordingTable>();
  table->before_set = [this](const Varnix::Row&) {
    RefuseElsewhere();
    member_.SignalDone();
  };
  member_->receive_table = table;
  peer_.answers = Bytes(
      "\x00\x10\x00\x01"
      "kv");
  const HookedHere send(Hooks().send, [this](int descriptor, const void* bytes, std::size_t size, int flags) {
    const ssize_t sent = Hooks().send.Real(descriptor, bytes, size, flags);
    peer_.Answer();
    return sent;
  });

  RunWithPeer(kRecordOfPeer, false);

  EXPECT_EQ(table->rows.size(), 1U);
  EXPECT_THAT(member_.FoundPeers(), IsEmpty());
}

// The exceptions of a stream.

TEST_F(ReceiveLoopTest, ConnectionToOurselvesEndsTheLoopSilently) {
  RunWithPeer(kRecordOfUs);

  EXPECT_THAT(trace_, ElementsAre("0ms: try"));
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(ReceiveLoopTest, PeerThatIsBeingReceivedFromAlreadyEndsTheLoopSilently) {
  const Registration registration(esns_,
                                  "\x04"
                                  "peerproc");

  RunWithPeer(kRecordOfPeer);

  EXPECT_THAT(trace_, ElementsAre("0ms: try"));
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(ReceiveLoopTest, ServerOfAnotherDatabaseEndsTheLoopWithALineForDebugging) {
  RunWithPeer(kOtherDatabase);

  EXPECT_THAT(trace_, ElementsAre("0ms: try"));
  EXPECT_THAT(Lines(), ElementsAre(WrongTableServer()));
}

TEST_F(ReceiveLoopTest, StopDuringAStreamEndsTheLoopWithOneLine) {
  const HookedHere fopencookie(Hooks().fopencookie,
                               [this](void* cookie, const char* mode, cookie_io_functions_t functions) {
                                 member_.SignalDone();
                                 return Hooks().fopencookie.Real(cookie, mode, functions);
                               });

  RunWithPeer("", false);

  EXPECT_THAT(trace_, ElementsAre("0ms: try"));
  EXPECT_THAT(Lines(), ElementsAre(Aborting()));
}

TEST_F(ReceiveLoopTest, StopWhileConnectingEndsTheLoopInItsPause) {
  member_.SignalDone();

  RunWithPeer(kRecordOfPeer, false);

  EXPECT_THAT(trace_, ElementsAre("0ms: try", "0ms: pause 2000"));
  EXPECT_THAT(Lines(), ElementsAre(Retrying("30000ms"), AbortedWhileRetrying(), Aborting()));
}

TEST_F(ReceiveLoopTest, AnyOtherExceptionLeavesTheLoop) {
  SetLogHook([](LogLevel, const char*, const char*, va_list) { throw std::runtime_error("hook"); });

  EXPECT_THROW(Run(), std::runtime_error);
}

// What identities may do to the lines.

TEST_F(ReceiveLoopTest, LengthThatClaimsTooMuchIsClampedInTheRetryLines) {
  member_->uid =
      "\x0A"
      "abc";  // Claims a device name of 10 bytes and has 3.
  member_name_ = "abc::::db";
  RunWithFailuresAfter({});

  EXPECT_THAT(Lines(), ElementsAre(Retrying("30000ms"), AbortedWhileRetrying(), Aborting()));
}

TEST_F(ReceiveLoopTest, LengthThatClaimsTooMuchIsClampedInTheLineOfGivingUp) {
  member_->uid =
      "\x0A"
      "abc";  // Claims a device name of 10 bytes and has 3.
  member_name_ = "abc::::db";
  RunWithFailuresAfter({8s, 8s, 8s, 8s});

  EXPECT_EQ(Lines().back(), GivingUp());
}

TEST_F(ReceiveLoopTest, LengthThatClaimsTooMuchIsClampedInTheLineOfTheWrongServer) {
  member_->uid =
      "\x0A"
      "abc";  // Claims a device name of 10 bytes and has 3.
  member_name_ = "abc::::db";
  RunWithPeer(kOtherDatabase);

  EXPECT_THAT(Lines(), ElementsAre(WrongTableServer()));
}
