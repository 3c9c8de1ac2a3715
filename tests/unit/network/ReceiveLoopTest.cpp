#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <deque>
#include <future>
#include <stdexcept>
#include <vector>

#include "Bytes.h"
#include "FailWith.h"
#include "FakeClock.h"
#include "HookedHere.h"
#include "PeerSocket.h"
#include "Registration.h"
#include "VacantServer.h"
#include "network/ActiveESNs.h"
#include "network/ReceiveLoop.h"
#include "support/LogRecorder.h"

using namespace std::chrono_literals;

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::KilledBySignal;
using Varnix::LogLevel;

// Runs the loop towards 224.1.2.3:4660, a number above 2^31 that no connection ever leaves for, on the thread and on the
// clock of the test.
class ReceiveLoopTest : public testing::Test {
 protected:
  using Pause = std::function<int(pollfd& done)>;

  explicit ReceiveLoopTest(const ServerSettings& settings = {}) : server_(settings) {}

  void Run() { ReceiveLoop(*server_, 0xE0010203, 4660, esns_).Run(); }
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
  std::string Server() const { return "TableServer for " + server_name_ + "(" + AddressOf(&*server_) + ")"; }
  // What the loop itself has logged, not its streams.
  std::vector<LogLine> Lines() const {
    std::vector<LogLine> lines;
    for (const LogLine& line : log_.Lines()) {
      if (line.tag.rfind("tblsvr.fnd.rcv", 0) == 0 || line.tag == "tblsvr.fp.poll") lines.push_back(line);
    }
    return lines;
  }

  FakeClock clock_;
  std::string server_name_ = "dev::proc::db";
  VacantServer server_;
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
      server_.SignalDone();
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

// Whose identity claims a device name of 10 bytes and has 3.
class ReceiveLoopOfMalformedUidTest : public ReceiveLoopTest {
 protected:
  ReceiveLoopOfMalformedUidTest() : ReceiveLoopTest(Settings()) { server_name_ = "abc::::db"; }

 private:
  static ServerSettings Settings() {
    ServerSettings settings;
    settings.uid =
        "\x0A"
        "abc";
    return settings;
  }
};

// Whole servers, which announce themselves on this host, in a group that no other process is in.
class SharingTest : public testing::Test {
 protected:
  struct Tables {
    const std::shared_ptr<Varnix::Table> received = Varnix::MakeTable("received");
    const std::shared_ptr<Varnix::Table> sent = Varnix::MakeTable("sent");
  };

  std::unique_ptr<TableServer> Start(const std::string& process, const Tables& tables) const {
    return std::make_unique<TableServer>(CombinedKey("dev", process), "db", tables.received, tables.sent,
                                         "group of " + std::to_string(getpid()), inet_addr("127.255.255.255"));
  }
  // Waits until the key has the value.
  static bool Arrives(const Tables& tables, const std::string& key, const std::string& value) {
    const auto watcher = tables.received->Watch(key);
    const auto set = Varnix::MakeWatcherSet({watcher});
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    for (;;) {
      const auto [row, changed] = set->WaitUntil(deadline);
      if (!changed || row.second == value) return changed != nullptr;
    }
  }
  static bool Eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (!condition()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::yield();
    }
    return true;
  }
  static std::size_t Count(const std::vector<LogLine>& lines, const std::string& tag, const std::string& end = "") {
    return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const LogLine& line) {
      return line.tag == tag && line.text.size() >= end.size() &&
             line.text.compare(line.text.size() - end.size(), end.size(), end) == 0;
    }));
  }
  std::size_t Count(const std::string& tag, const std::string& end = "") const { return Count(log_.Lines(), tag, end); }
  // Waits until two servers have settled: each has met itself and the other, whoever was connected to has connected
  // back, the first of them has tried once more in return, and only one stream is left in each direction.
  bool AllHaveMet() const {
    return Eventually([this] {
      const std::vector<LogLine> lines = log_.Lines();
      return Count(lines, "tblrcvr.gotuid") >= 5 && Count(lines, "tblsvr.fnd") >= 2 &&
             Count(lines, "tblrcvr.ctor") - Count(lines, "tblrcvr.dtor") == 2 &&
             Count(lines, "tblsndr.ctor") - Count(lines, "tblsndr.dtor") == 2;
    });
  }
  std::vector<LogLine> LinesOfReceiveLoops() const {
    std::vector<LogLine> lines;
    for (const LogLine& line : log_.Lines()) {
      if (line.tag.rfind("tblsvr.fnd.rcv", 0) == 0) lines.push_back(line);
    }
    return lines;
  }

  LogRecorder log_;
};

// What a peer says to begin with: a record of database and uid.
const std::string kPeer = Bytes(
    "\x00\x20\x00\x09"
    "db"
    "\x04peerproc");
const std::string kOurselves = Bytes(
    "\x00\x20\x00\x08"
    "db"
    "\x03"
    "devproc");
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

TEST_F(ReceiveLoopTest, RestOfTheRetryPeriodIsCutToWholeMilliseconds) {
  RunWithFailuresAfter({1ns});

  EXPECT_EQ(Lines().front(), Retrying("29999ms"));
}

TEST_F(ReceiveLoopTest, PauseWatchesTheDonePipeAlone) {
  RunWithFailuresAfter({0s});

  ASSERT_FALSE(pauses_.empty());
  EXPECT_EQ(pauses_[0].fd, server_->GetDoneDescriptor());
  EXPECT_EQ(pauses_[0].events, POLLIN);
}

TEST_F(ReceiveLoopTest, PeerThatDropsTheConnectionAtOnceIsTriedEveryTwoSecondsForThirtySecondsAndThenGivenUp) {
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

TEST_F(ReceiveLoopTest, AttemptOfJustUnderNineSecondsIsTriedAgainAtOnceWithinTheSamePeriod) {
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
  RunWithPeer(kOurselves);

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

TEST_F(ReceiveLoopTest, StopEndsThePauseOfAReceiverThreadAtOnce) {
  const Hooked connect(Hooks().connect, FailWith{ECONNREFUSED});
  const Hooked poll(Hooks().poll, [](pollfd* entries, nfds_t count, int time_out) {
    return Hooks().poll.Real(entries, count, time_out == 2000 ? 600000 : time_out);  // Only the stop can end it.
  });
  std::promise<void> released;
  server_->FoundPeer(0xE0010203, 4660, std::make_shared<ActiveESNs>([&] { released.set_value(); }));
  ASSERT_TRUE(log_.Eventually("tblsvr.fnd.rcv.err"));

  server_.SignalDone();

  ASSERT_EQ(released.get_future().wait_until(std::chrono::system_clock::now() + 10s), std::future_status::ready);
  const std::vector<LogLine> lines = Lines();  // The first has what the real clock says.
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[1], AbortedWhileRetrying());
  EXPECT_EQ(lines[2], Aborting());
}

// The exceptions of a stream.

TEST_F(ReceiveLoopTest, ConnectionToOurselvesEndsTheLoopSilently) {
  RunWithPeer(kOurselves);

  EXPECT_THAT(trace_, ElementsAre("0ms: try"));
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(ReceiveLoopTest, PeerThatIsBeingReceivedFromAlreadyEndsTheLoopSilently) {
  const Registration registration(esns_,
                                  "\x04"
                                  "peerproc");

  RunWithPeer(kPeer);

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
                                 server_.SignalDone();
                                 return Hooks().fopencookie.Real(cookie, mode, functions);
                               });

  RunWithPeer("", false);

  EXPECT_THAT(trace_, ElementsAre("0ms: try"));
  EXPECT_THAT(Lines(), ElementsAre(Aborting()));
}

TEST_F(ReceiveLoopTest, StopWhileConnectingEndsTheLoopInItsPause) {
  server_.SignalDone();

  RunWithPeer(kPeer, false);

  EXPECT_THAT(trace_, ElementsAre("0ms: try", "0ms: pause 2000"));
  EXPECT_THAT(Lines(), ElementsAre(Retrying("30000ms"), AbortedWhileRetrying(), Aborting()));
}

TEST_F(ReceiveLoopTest, AnyOtherExceptionLeavesTheLoop) {
  SetLogHook([](LogLevel, const char*, const char*, va_list) { throw std::runtime_error("hook"); });

  EXPECT_THROW(Run(), std::runtime_error);
}

TEST_F(ReceiveLoopTest, AnyOtherExceptionOfAReceiverThreadEndsTheProcess) {
  const auto find_peer = [this] {
    SetLogHook([](LogLevel, const char*, const char*, va_list) { throw std::runtime_error("thrown by the hook"); });
    server_->FoundPeer(0xE0010203, 4660, esns_);
    for (;;) pause();
  };

  EXPECT_EXIT(find_peer(), KilledBySignal(SIGABRT), HasSubstr("thrown by the hook"));
}

// What identities may do to the lines.

TEST_F(ReceiveLoopOfMalformedUidTest, LengthThatClaimsTooMuchIsClampedInTheRetryLines) {
  RunWithFailuresAfter({});

  EXPECT_THAT(Lines(), ElementsAre(Retrying("30000ms"), AbortedWhileRetrying(), Aborting()));
}

TEST_F(ReceiveLoopOfMalformedUidTest, LengthThatClaimsTooMuchIsClampedInTheLineOfGivingUp) {
  RunWithFailuresAfter({8s, 8s, 8s, 8s});

  EXPECT_EQ(Lines().back(), GivingUp());
}

TEST_F(ReceiveLoopOfMalformedUidTest, LengthThatClaimsTooMuchIsClampedInTheLineOfTheWrongServer) {
  RunWithPeer(kOtherDatabase);

  EXPECT_THAT(Lines(), ElementsAre(WrongTableServer()));
}

// Servers among themselves.

TEST_F(SharingTest, TwoServersOfAGroupReceiveEachOthersRows) {
  const Tables left_tables;
  const Tables right_tables;
  left_tables.sent->Set({"\x01tl", "of left"});
  right_tables.sent->Set({"\x01tr", "of right"});

  const auto left = Start("left", left_tables);
  const auto right = Start("right", right_tables);

  EXPECT_TRUE(Arrives(left_tables, "\x01tr", "of right"));
  EXPECT_TRUE(Arrives(right_tables, "\x01tl", "of left"));
}

TEST_F(SharingTest, TwoServersOfAGroupEndUpWithOneConnectionInEachDirection) {
  const auto left = Start("left", {});
  const auto right = Start("right", {});

  EXPECT_TRUE(AllHaveMet());

  EXPECT_EQ(Count("tblsvr.fnd", " found peer: dev::left 2130706433:" + std::to_string(left->GetListenPort())), 1U);
  EXPECT_EQ(Count("tblsvr.fnd", " found peer: dev::right 2130706433:" + std::to_string(right->GetListenPort())), 1U);
  EXPECT_THAT(LinesOfReceiveLoops(), IsEmpty());
}

TEST_F(SharingTest, AnnouncementOfAPeerThatIsReceivedFromLeavesItsStreamAlone) {
  const Tables left_tables;
  const Tables right_tables;
  const auto left = Start("left", left_tables);
  const auto right = Start("right", right_tables);
  ASSERT_TRUE(AllHaveMet());
  log_.Clear();

  left->NetworkChanged();

  EXPECT_TRUE(Eventually([&] { return Count("tblrcvr.gotuid", "dev::left") >= 2; }));  // Both have heard it.
  left_tables.sent->Set({"\x01tl", "after"});
  EXPECT_TRUE(Arrives(right_tables, "\x01tl", "after"));
  EXPECT_EQ(Count("tblsvr.fnd"), 0U);
}

TEST_F(SharingTest, PeerThatIsFoundTwiceInQuickSuccessionGivesOneStreamAndOneThreadThatEndsSilently) {
  const VacantServer server;  // Of another group: it is not connected back to.
  const auto peer = Start("peer", {});
  ASSERT_TRUE(log_.Eventually("tblrcvr.dtor"));  // It has met itself.
  log_.Clear();
  std::promise<void> released;
  auto esns = std::make_shared<ActiveESNs>([&] { released.set_value(); });

  server->FoundPeer(INADDR_LOOPBACK, peer->GetListenPort(), esns);
  server->FoundPeer(INADDR_LOOPBACK, peer->GetListenPort(), esns);

  EXPECT_TRUE(Eventually([&] { return Count("tblrcvr.strm.grp") == 1 && Count("tblrcvr.dtor") == 1; }));
  server.SignalDone();
  esns.reset();
  ASSERT_EQ(released.get_future().wait_until(std::chrono::system_clock::now() + 10s), std::future_status::ready);
  EXPECT_EQ(Count("tblsvr.fnd"), 1U);
  EXPECT_THAT(LinesOfReceiveLoops(),
              ElementsAre(LogLine{LogLevel::Info, "tblsvr.fnd.rcv.abort",
                                  "TableServer for dev::proc::db(" + AddressOf(&*server) +
                                      ") aborting ReceiveTable for 2130706433:" + std::to_string(peer->GetListenPort()),
                                  ""}));
}

TEST_F(SharingTest, ServerThatHearsItselfConnectsToItselfAndEndsThatSilently) {
  auto server = Start("self", {});

  EXPECT_TRUE(log_.Eventually("tblrcvr.gotuid"));
  EXPECT_TRUE(log_.Eventually("tblrcvr.dtor"));
  server.reset();

  EXPECT_EQ(Count("tblrcvr.gotuid", "dev::self"), 1U);
  EXPECT_EQ(Count("tblsvr.fnd"), 0U);
  EXPECT_THAT(LinesOfReceiveLoops(), IsEmpty());
}

TEST_F(SharingTest, EndedReceiversMakeRoomForOthers) {
  const auto server = Start("self", {});
  const auto esns = std::make_shared<ActiveESNs>([] {});
  std::atomic<int> ended{0};
  std::atomic<int> refused{0};
  SetLogHook([&](LogLevel, const char* tag, const char*, va_list) {
    ended += std::strcmp(tag, "tblrcvr.dtor") == 0 ? 1 : 0;
    refused += std::strcmp(tag, "tblsvr.fnd.thread") == 0 ? 1 : 0;
  });

  for (int i = 0; i < 1100; ++i) {  // More than there may be at once.
    const int before = ended;
    server->FoundPeer(INADDR_LOOPBACK, server->GetListenPort(), esns);
    ASSERT_TRUE(Eventually([&] { return ended > before || refused > 0; }));
  }

  EXPECT_EQ(refused, 0);
  server->Stop();
}
