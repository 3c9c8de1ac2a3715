// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gmock/gmock.h>
#include <sys/ioctl.h>

#include <csignal>
#include <deque>
#include <vector>

#include "TestMember.h"
#include "network/ActiveESNs.h"
#include "network/Discovery.h"
#include "support/Bytes.h"
#include "support/FailWith.h"
#include "support/FakeClock.h"
#include "support/HookedHere.h"
#include "support/LogRecorder.h"
#include "support/Says.h"

using namespace std::chrono_literals;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::KilledBySignal;
using testing::UnorderedElementsAre;
using Varnix::LogLevel;

struct Announcement {
  int descriptor;
  std::string bytes;
  int flags;
  sockaddr_in to;
  socklen_t to_size;
};

struct PollEntry {
  int descriptor;
  short events;

  bool operator==(const PollEntry& other) const { return descriptor == other.descriptor && events == other.events; }
};

struct RecvfromCall {
  int descriptor;
  std::size_t size;
  int flags;
  socklen_t from_size;
};

// Runs the discovery on the thread and on the clock of the test. What it announces goes nowhere.
class DiscoveryTest : public testing::Test {
 protected:
  // What comes of one poll.
  using Event = std::function<int(pollfd* entries, int time_out)>;

  DiscoveryTest() : socket_(socket(AF_INET, SOCK_DGRAM, 0)) {
    EXPECT_EQ(pipe(wake_), 0);
    const sockaddr_in loopback = ToSocketAddress({INADDR_LOOPBACK, 0});
    EXPECT_EQ(Hooks().bind.Real(socket_, Generic(loopback), sizeof loopback), 0);
  }
  ~DiscoveryTest() override {
    for (const int descriptor : {socket_, wake_[0], wake_[1]}) close(descriptor);
  }

  // Each event is that of one poll; when there are no more, the server stops.
  void Run(const std::vector<Event>& events) {
    events_.assign(events.begin(), events.end());
    const FoundPeerCallback found_peer = [this](const PeerPlace& place, const std::shared_ptr<ActiveESNs>& esns) {
      found_with_.push_back(esns);
      member_.FoundPeer()(place, esns);
    };
    Discovery(*member_, socket_, wake_[0], ToSocketAddress({0x7FFFFFFF, 1975}), found_peer, active_esns_).Run();
  }
  // For a death test.
  void RunWithDefaultLogger(const Event& event) {
    SetLogHook(DefaultLogger);
    Run({event});
  }

  Event TimesOut() {
    return [this](pollfd*, int time_out) {
      clock_.Advance(std::chrono::milliseconds(time_out));
      return 0;
    };
  }
  Event After(std::chrono::nanoseconds pause, Event event) {
    return [this, pause, event = std::move(event)](pollfd* entries, int time_out) {
      clock_.Advance(pause);
      return event(entries, time_out);
    };
  }
  static Event Nothing() {
    return [](pollfd*, int) { return 0; };
  }
  static Event Fails(int error) {
    return [error](pollfd*, int) { return FailWith{error}(); };
  }
  Event NetworkChanges() {
    return [this](pollfd* entries, int) {
      TellOfANetworkChange();
      return WhatIsReady(entries);
    };
  }
  Event Arrives(const std::string& datagram) {
    return [this, datagram](pollfd* entries, int) {
      SendDatagram(datagram);
      return WhatIsReady(entries);
    };
  }
  static int WhatIsReady(pollfd* entries) { return Hooks().poll.Real(entries, 3, 0); }

  void SendDatagram(const std::string& bytes) const {
    sockaddr_in to{};
    socklen_t size = sizeof to;
    ASSERT_EQ(Hooks().getsockname.Real(socket_, reinterpret_cast<sockaddr*>(&to), &size), 0);
    const int sender = socket(AF_INET, SOCK_DGRAM, 0);
    EXPECT_EQ(Hooks().sendto.Real(sender, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), size),
              static_cast<ssize_t>(bytes.size()));
    close(sender);
  }
  static int WaitingBytes(int descriptor) {
    int waiting = 0;
    EXPECT_EQ(ioctl(descriptor, FIONREAD, &waiting), 0);
    return waiting;
  }
  void TellOfANetworkChange() const { ASSERT_EQ(write(wake_[1], "W", 1), 1); }

  FakeClock clock_;
  TestMember member_;
  LogRecorder log_;
  std::vector<std::string> trace_;  // "0ms: send", "0ms: poll 60000": what was called when.
  std::vector<Announcement> announcements_;
  std::deque<int> send_errors_;  // 0 for one that is sent; those after the last are sent.
  std::chrono::nanoseconds send_takes_{0};
  std::vector<PollEntry> polled_;
  std::vector<RecvfromCall> recvfrom_calls_;
  const std::shared_ptr<ActiveESNs> active_esns_ = std::make_shared<ActiveESNs>([] {});
  std::vector<std::shared_ptr<ActiveESNs>> found_with_;  // What each peer that was found was reported with.
  const int socket_;                                     // On a loopback port of its own.
  int wake_[2];

 private:
  void Trace(const std::string& call) { trace_.push_back(clock_.Text() + ": " + call); }

  std::deque<Event> events_;
  HookedHere<ssize_t(int, const void*, std::size_t, int, const sockaddr*, socklen_t)> sendto_{
      Hooks().sendto,
      [this](int descriptor, const void* bytes, std::size_t size, int flags, const sockaddr* to, socklen_t to_size) {
        Trace("send");
        announcements_.push_back({descriptor, std::string(static_cast<const char*>(bytes), size), flags,
                                  *reinterpret_cast<const sockaddr_in*>(to), to_size});
        clock_.Advance(send_takes_);
        if (send_errors_.empty()) return static_cast<ssize_t>(size);
        errno = send_errors_.front();
        send_errors_.pop_front();
        return errno == 0 ? static_cast<ssize_t>(size) : -1;
      }};
  HookedHere<int(pollfd*, nfds_t, int)> poll_{Hooks().poll, [this](pollfd* entries, nfds_t count, int time_out) {
                                                Trace("poll " + std::to_string(time_out));
                                                polled_.clear();
                                                for (nfds_t i = 0; i < count; ++i) {
                                                  polled_.push_back({entries[i].fd, entries[i].events});
                                                  entries[i].revents = 0;
                                                }
                                                if (events_.empty()) {
                                                  entries[0].revents = POLLIN;
                                                  return 1;
                                                }
                                                const Event event = std::move(events_.front());
                                                events_.pop_front();
                                                return event(entries, time_out);
                                              }};
  HookedHere<ssize_t(int, void*, std::size_t, int, sockaddr*, socklen_t*)> recvfrom_{
      Hooks().recvfrom,
      [this](int descriptor, void* buffer, std::size_t size, int flags, sockaddr* from, socklen_t* from_size) {
        recvfrom_calls_.push_back({descriptor, size, flags, *from_size});
        return Hooks().recvfrom.Real(descriptor, buffer, size, flags, from, from_size);
      }};
};

}  // namespace

// The announcement.

TEST_F(DiscoveryTest, AnnouncementIsTheListeningPortInNetworkOrderAndTheGroup) {
  Run({});

  ASSERT_EQ(announcements_.size(), 1U);
  EXPECT_EQ(announcements_[0].bytes,
            "\xFE\xDC"
            "group");
}

TEST_F(DiscoveryTest, AnnouncementIsBroadcastToPort1975WithoutFlags) {
  Run({});

  ASSERT_EQ(announcements_.size(), 1U);
  EXPECT_EQ(announcements_[0].descriptor, socket_);
  EXPECT_EQ(announcements_[0].flags, 0);
  EXPECT_EQ(announcements_[0].to.sin_family, AF_INET);
  EXPECT_EQ(announcements_[0].to.sin_port, htons(1975));
  EXPECT_EQ(announcements_[0].to.sin_addr.s_addr, htonl(0x7FFFFFFF));
  EXPECT_EQ(announcements_[0].to_size, 16U);
}

TEST_F(DiscoveryTest, EveryAnnouncementIsTheSame) {
  Run({TimesOut(), NetworkChanges()});

  ASSERT_EQ(announcements_.size(), 3U);
  EXPECT_EQ(announcements_[1].bytes,
            "\xFE\xDC"
            "group");
  EXPECT_EQ(announcements_[2].bytes,
            "\xFE\xDC"
            "group");
}

TEST_F(DiscoveryTest, AnnouncementOfTheEmptyGroupIsThePortAlone) {
  member_->group = "";
  Run({});

  ASSERT_EQ(announcements_.size(), 1U);
  EXPECT_EQ(announcements_[0].bytes, "\xFE\xDC");
}

TEST_F(DiscoveryTest, ZeroByteOfAGroupIsAnnouncedAsItIs) {
  member_->group = Bytes("a\0b");
  Run({});

  ASSERT_EQ(announcements_.size(), 1U);
  EXPECT_EQ(announcements_[0].bytes, Bytes("\xFE\xDC"
                                           "a\0b"));
}

TEST_F(DiscoveryTest, GroupThatNobodyWillAcceptIsAnnouncedWhole) {
  member_->group = std::string(255, 'g');
  Run({});

  ASSERT_EQ(announcements_.size(), 1U);
  EXPECT_EQ(announcements_[0].bytes, "\xFE\xDC" + std::string(255, 'g'));
}

// The schedule.

TEST_F(DiscoveryTest, FirstAnnouncementGoesOutAtOnceAndTheNextOnesEverySixtySeconds) {
  Run({TimesOut(), TimesOut()});

  EXPECT_THAT(trace_, ElementsAre("0ms: send", "0ms: poll 60000", "60000ms: send", "60000ms: poll 60000",
                                  "120000ms: send", "120000ms: poll 60000"));
}

TEST_F(DiscoveryTest, PollsTheDonePipeTheWakePipeAndTheSocketForInput) {
  Run({});

  EXPECT_THAT(polled_, ElementsAre(PollEntry{member_->done_descriptor, POLLIN}, PollEntry{wake_[0], POLLIN},
                                   PollEntry{socket_, POLLIN}));
}

TEST_F(DiscoveryTest, AnnouncementIsNotSentANanosecondEarly) {
  Run({After(60s - 1ns, Nothing())});

  EXPECT_THAT(trace_, ElementsAre("0ms: send", "0ms: poll 60000", "59999ms: poll 0"));
}

TEST_F(DiscoveryTest, AnnouncementIsSentInTheNanosecondInWhichItIsDue) {
  Run({After(60s - 1ns, Nothing()), After(1ns, Nothing())});

  EXPECT_THAT(trace_,
              ElementsAre("0ms: send", "0ms: poll 60000", "59999ms: poll 0", "60000ms: send", "60000ms: poll 60000"));
}

TEST_F(DiscoveryTest, ScheduleDoesNotDriftWhenAnAnnouncementIsLate) {
  Run({After(60300ms, Nothing()), TimesOut()});

  EXPECT_THAT(trace_, ElementsAre("0ms: send", "0ms: poll 60000", "60300ms: send", "60300ms: poll 59700",
                                  "120000ms: send", "120000ms: poll 60000"));
}

TEST_F(DiscoveryTest, TimeOutCountsFromBeforeTheSend) {
  send_takes_ = 250ms;

  Run({});

  EXPECT_THAT(trace_, ElementsAre("0ms: send", "250ms: poll 60000"));
}

TEST_F(DiscoveryTest, TimeOutIsCutToWholeMilliseconds) {
  Run({After(10s + 1ns, Nothing()), After(999998ns, Nothing())});

  EXPECT_THAT(trace_, ElementsAre("0ms: send", "0ms: poll 60000", "10000ms: poll 49999", "10000ms: poll 49999"));
}

TEST_F(DiscoveryTest, TimeOutIsNegativeWhenTheScheduleIsMoreThanAnIntervalBehind) {
  Run({After(130s, Nothing())});

  EXPECT_THAT(trace_, ElementsAre("0ms: send", "0ms: poll 60000", "130000ms: send", "130000ms: poll -10000"));
}

TEST_F(DiscoveryTest, NegativeTimeOutIsCutTowardsZero) {
  Run({After(130s + 999999ns, Nothing())});

  EXPECT_THAT(trace_, ElementsAre("0ms: send", "0ms: poll 60000", "130000ms: send", "130000ms: poll -10000"));
}

TEST_F(DiscoveryTest, ScheduleThatIsBehindCatchesUpByOneAnnouncementAtEachPass) {
  Run({After(200s, Nothing()), Nothing(), Nothing()});

  EXPECT_THAT(trace_, ElementsAre("0ms: send", "0ms: poll 60000", "200000ms: send", "200000ms: poll -80000",
                                  "200000ms: send", "200000ms: poll -20000", "200000ms: send", "200000ms: poll 40000"));
}

TEST_F(DiscoveryTest, InterruptedSendIsRepeatedAtOnceAndAdvancesNothing) {
  send_errors_ = {EINTR};
  send_takes_ = 40ms;

  Run({});

  EXPECT_THAT(trace_, ElementsAre("0ms: send", "40ms: send", "80ms: poll 59960"));
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(DiscoveryTest, SendThatFailsIsLoggedForDebuggingAndTheScheduleGoesOn) {
  send_errors_ = {ENETUNREACH};

  Run({TimesOut()});

  EXPECT_THAT(log_.Lines(), ElementsAre(LogLine{LogLevel::Debug, "tblsvr.dscv.sendto",
                                                "TableServer: Discover::sendto error 101", ""}));
  EXPECT_THAT(trace_, ElementsAre("0ms: send", "0ms: poll 60000", "60000ms: send", "60000ms: poll 60000"));
}

TEST_F(DiscoveryTest, SendThatFailsInABurstUsesUpItsTurn) {
  send_errors_ = {0, EPERM};

  Run({NetworkChanges(), TimesOut(), TimesOut(), TimesOut()});

  EXPECT_EQ(log_.Lines("tblsvr.dscv.sendto").size(), 1U);
  EXPECT_THAT(trace_, ElementsAre("0ms: send", "0ms: poll 60000", "0ms: send", "0ms: poll 2000", "2000ms: send",
                                  "2000ms: poll 2000", "4000ms: send", "4000ms: poll 2000", "6000ms: send",
                                  "6000ms: poll 60000"));
}

TEST_F(DiscoveryTest, InterruptedPollStartsAPassWithTheTimeThatIsLeft) {
  Run({After(100ms, Fails(EINTR))});

  EXPECT_THAT(trace_, ElementsAre("0ms: send", "0ms: poll 60000", "100ms: poll 59900"));
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(DiscoveryTest, PollThatFailsEndsTheProcess) {
  EXPECT_EXIT(RunWithDefaultLogger(Fails(EINVAL)), KilledBySignal(SIGABRT),
              Says("tblsvr.dscv.poll: TableServer: Discover::poll error 22: Invalid argument\n"));
}

// The stop.

TEST_F(DiscoveryTest, ReturnsSilentlyWhenTheDonePipeIsReadable) {
  member_.SignalDone();

  Run({[](pollfd* entries, int) { return WhatIsReady(entries); }, Fails(EBADF)});

  EXPECT_THAT(trace_, ElementsAre("0ms: send", "0ms: poll 60000"));
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(DiscoveryTest, LeavesTheDoneByteInThePipe) {
  member_.SignalDone();

  Run({[](pollfd* entries, int) { return WhatIsReady(entries); }});

  EXPECT_EQ(WaitingBytes(member_->done_descriptor), 1);
}

TEST_F(DiscoveryTest, AnyEventOfTheDonePipeIsTheStop) {
  const Event hangs_up = [](pollfd* entries, int) {
    entries[0].revents = POLLHUP;
    return 1;
  };

  Run({hangs_up, Fails(EBADF)});

  EXPECT_THAT(trace_, ElementsAre("0ms: send", "0ms: poll 60000"));
}

TEST_F(DiscoveryTest, StopWinsOverANetworkChangeAndADatagram) {
  TellOfANetworkChange();
  SendDatagram(
      "\x12\x34"
      "group");
  member_.SignalDone();

  Run({[](pollfd* entries, int) { return WhatIsReady(entries); }});

  EXPECT_EQ(WaitingBytes(wake_[0]), 1);
  EXPECT_EQ(WaitingBytes(socket_), 7);
  EXPECT_THAT(log_.Lines(), IsEmpty());
  EXPECT_THAT(recvfrom_calls_, IsEmpty());
}

// A network change.

TEST_F(DiscoveryTest, NetworkChangeIsFollowedByABurstAndThenBySixtySecondsAgain) {
  Run({After(30s, NetworkChanges()), TimesOut(), TimesOut(), TimesOut(), TimesOut(), TimesOut()});

  EXPECT_THAT(trace_, ElementsAre("0ms: send", "0ms: poll 60000",          //
                                  "30000ms: send", "30000ms: poll 2000",   //
                                  "32000ms: send", "32000ms: poll 2000",   //
                                  "34000ms: send", "34000ms: poll 2000",   //
                                  "36000ms: send", "36000ms: poll 60000",  //
                                  "96000ms: send", "96000ms: poll 60000",  //
                                  "156000ms: send", "156000ms: poll 60000"));
}

TEST_F(DiscoveryTest, NetworkChangeDuringABurstStartsTheBurstOver) {
  Run({NetworkChanges(), TimesOut(), After(500ms, NetworkChanges()), TimesOut(), TimesOut(), TimesOut(), TimesOut()});

  EXPECT_THAT(trace_, ElementsAre("0ms: send", "0ms: poll 60000",        //
                                  "0ms: send", "0ms: poll 2000",         //
                                  "2000ms: send", "2000ms: poll 2000",   // And then the network changes again.
                                  "2500ms: send", "2500ms: poll 2000",   //
                                  "4500ms: send", "4500ms: poll 2000",   //
                                  "6500ms: send", "6500ms: poll 2000",   //
                                  "8500ms: send", "8500ms: poll 60000",  //
                                  "68500ms: send", "68500ms: poll 60000"));
}

TEST_F(DiscoveryTest, NetworkChangeAfterABurstStartsAnother) {
  Run({NetworkChanges(), TimesOut(), TimesOut(), TimesOut(), After(1s, NetworkChanges()), TimesOut(), TimesOut(),
       TimesOut()});

  EXPECT_THAT(trace_, ElementsAre("0ms: send", "0ms: poll 60000", "0ms: send", "0ms: poll 2000", "2000ms: send",
                                  "2000ms: poll 2000", "4000ms: send", "4000ms: poll 2000", "6000ms: send",
                                  "6000ms: poll 60000",                 // The end of the first.
                                  "7000ms: send", "7000ms: poll 2000",  //
                                  "9000ms: send", "9000ms: poll 2000",  //
                                  "11000ms: send", "11000ms: poll 2000", "13000ms: send", "13000ms: poll 60000"));
}

TEST_F(DiscoveryTest, NetworkChangeIsLoggedWithTheServersName) {
  Run({NetworkChanges()});

  EXPECT_THAT(log_.Lines(), ElementsAre(LogLine{LogLevel::Debug, "tblsvr.dscv.chg",
                                                member_.Name() + " notified of network change", ""}));
}

TEST_F(DiscoveryTest, LengthThatClaimsTooMuchIsClampedInTheLog) {
  member_->uid =
      "\x0A"
      "abc";  // Claims a device name of 10 bytes and has 3.
  Run({NetworkChanges()});

  EXPECT_THAT(log_.Lines(), ElementsAre(LogLine{LogLevel::Debug, "tblsvr.dscv.chg",
                                                member_.Name("abc::::db") + " notified of network change", ""}));
}

TEST_F(DiscoveryTest, EachNetworkChangeTakesOneByteOfTheWakePipe) {
  TellOfANetworkChange();
  TellOfANetworkChange();

  Run({NetworkChanges()});

  EXPECT_EQ(WaitingBytes(wake_[0]), 2);
}

TEST_F(DiscoveryTest, AnyEventOfTheWakePipeIsANetworkChange) {
  TellOfANetworkChange();
  const Event has_error = [](pollfd* entries, int) {
    entries[1].revents = POLLERR;
    return 1;
  };

  Run({has_error});

  EXPECT_EQ(log_.Lines("tblsvr.dscv.chg").size(), 1U);
}

TEST_F(DiscoveryTest, WakePipeThatCannotBeReadEndsTheProcess) {
  const auto run = [this] {
    const Hooked read(Hooks().read, FailWith{EIO});
    RunWithDefaultLogger(NetworkChanges());
  };

  EXPECT_EXIT(run(), KilledBySignal(SIGABRT),
              Says("tblsvr.dscv.done.rd: TableServer: Discover::poll done pipe read error 5: Input/output error\n"));
}

TEST_F(DiscoveryTest, WakePipeThatHasEndedEndsTheProcess) {
  const auto run = [this] {
    const Hooked read(Hooks().read, [](int, void*, std::size_t) {
      errno = 0;
      return ssize_t{0};
    });
    RunWithDefaultLogger(NetworkChanges());
  };

  EXPECT_EXIT(run(), KilledBySignal(SIGABRT),
              Says("tblsvr.dscv.done.rd: TableServer: Discover::poll done pipe read error 0: Success\n"));
}

TEST_F(DiscoveryTest, WakePipeIsReadOneByteAtATime) {
  std::vector<std::pair<int, std::size_t>> reads;
  const HookedHere read(Hooks().read, [&](int descriptor, void* buffer, std::size_t size) {
    reads.emplace_back(descriptor, size);
    return Hooks().read.Real(descriptor, buffer, size);
  });

  Run({NetworkChanges()});

  EXPECT_THAT(reads, ElementsAre(std::pair(wake_[0], std::size_t{1})));
}

TEST_F(DiscoveryTest, NetworkChangeAndDatagramInOnePassAreBothHandled) {
  Run({After(10s, [this](pollfd* entries, int time_out) {
    SendDatagram(
        "\x12\x34"
        "group");
    return NetworkChanges()(entries, time_out);
  })});

  EXPECT_THAT(trace_, ElementsAre("0ms: send", "0ms: poll 60000", "10000ms: send", "10000ms: poll 2000"));
  EXPECT_EQ(log_.Lines("tblsvr.dscv.chg").size(), 1U);
  EXPECT_THAT(member_.FoundPeers(), ElementsAre("2130706433:4660"));
}

// What others announce.

TEST_F(DiscoveryTest, SenderOfTheSameGroupIsFoundAtItsAddressAndPort) {
  Run(
      {Arrives("\x12\x34"
               "group")});

  EXPECT_THAT(member_.FoundPeers(), ElementsAre("2130706433:4660"));
}

TEST_F(DiscoveryTest, EachFoundPeerIsReportedWithTheActiveESNsWhichAreKeptNoLongerThanTheRun) {
  Run({Arrives("\x12\x34"
               "group"),
       Arrives("\x12\x35"
               "group")});

  EXPECT_THAT(found_with_, ElementsAre(active_esns_, active_esns_));
  EXPECT_EQ(active_esns_.use_count(), 3);  // Here and with the two.
}

TEST_F(DiscoveryTest, PortIsReadAsUnsignedBytes) {
  Run(
      {Arrives("\xFF\x80"
               "group")});

  EXPECT_THAT(member_.FoundPeers(), ElementsAre("2130706433:65408"));
}

TEST_F(DiscoveryTest, OwnAnnouncementIsNotSkipped) {
  Run(
      {Arrives("\xFE\xDC"
               "group")});

  EXPECT_THAT(member_.FoundPeers(), ElementsAre("2130706433:65244"));
}

TEST_F(DiscoveryTest, PeerIsFoundAgainAtEachOfItsAnnouncements) {
  Run({Arrives("\x12\x34"
               "group"),
       Arrives("\x12\x34"
               "group")});

  EXPECT_THAT(member_.FoundPeers(), ElementsAre("2130706433:4660", "2130706433:4660"));
}

TEST_F(DiscoveryTest, EachPassTakesOneDatagram) {
  SendDatagram(
      "\x12\x34"
      "group");
  SendDatagram(
      "\x12\x35"
      "group");
  const Event is_ready = [](pollfd* entries, int) { return WhatIsReady(entries); };

  Run({is_ready, is_ready});

  EXPECT_THAT(trace_, ElementsAre("0ms: send", "0ms: poll 60000", "0ms: poll 60000", "0ms: poll 60000"));
  EXPECT_EQ(recvfrom_calls_.size(), 2U);
  EXPECT_THAT(member_.FoundPeers(), UnorderedElementsAre("2130706433:4660", "2130706433:4661"));
}

TEST_F(DiscoveryTest, DatagramIsReceivedWithItsRealSizeIntoA256ByteBuffer) {
  Run(
      {Arrives("\x12\x34"
               "other")});

  ASSERT_EQ(recvfrom_calls_.size(), 1U);
  EXPECT_EQ(recvfrom_calls_[0].descriptor, socket_);
  EXPECT_EQ(recvfrom_calls_[0].size, 256U);
  EXPECT_EQ(recvfrom_calls_[0].flags, MSG_TRUNC);
  EXPECT_EQ(recvfrom_calls_[0].from_size, 16U);
}

TEST_F(DiscoveryTest, AnyEventOfTheSocketIsADatagram) {
  SendDatagram(
      "\x12\x34"
      "group");
  const Event has_error = [](pollfd* entries, int) {
    entries[2].revents = POLLERR;
    return 1;
  };

  Run({has_error});

  EXPECT_THAT(member_.FoundPeers(), ElementsAre("2130706433:4660"));
}

TEST_F(DiscoveryTest, OtherGroupIsIgnoredSilently) {
  Run(
      {Arrives("\x12\x34"
               "grouq")});

  EXPECT_THAT(log_.Lines(), IsEmpty());
  EXPECT_THAT(member_.FoundPeers(), IsEmpty());
}

TEST_F(DiscoveryTest, PrefixOfTheGroupIsIgnoredSilently) {
  Run(
      {Arrives("\x12\x34"
               "grou")});

  EXPECT_THAT(log_.Lines(), IsEmpty());
  EXPECT_THAT(member_.FoundPeers(), IsEmpty());
}

TEST_F(DiscoveryTest, ExtensionOfTheGroupIsIgnoredSilently) {
  Run(
      {Arrives("\x12\x34"
               "groups")});

  EXPECT_THAT(log_.Lines(), IsEmpty());
  EXPECT_THAT(member_.FoundPeers(), IsEmpty());
}

TEST_F(DiscoveryTest, GroupWithAZeroByteBehindItIsIgnoredSilently) {
  Run(
      {Arrives(Bytes("\x12\x34"
                     "group\0"))});

  EXPECT_THAT(log_.Lines(), IsEmpty());
  EXPECT_THAT(member_.FoundPeers(), IsEmpty());
}

TEST_F(DiscoveryTest, GroupIsComparedBeyondItsZeroByte) {
  member_->group = Bytes("a\0b");
  Run({Arrives(Bytes("\x12\x34"
                     "a\0c")),
       Arrives(Bytes("\x12\x35"
                     "a\0b"))});

  EXPECT_THAT(member_.FoundPeers(), ElementsAre("2130706433:4661"));
}

TEST_F(DiscoveryTest, EmptyDatagramIsRefusedWithItsSize) {
  Run({Arrives("")});

  EXPECT_THAT(log_.Lines(), ElementsAre(LogLine{LogLevel::Error, "tblsvr.dscv.sz",
                                                "TableServer: Discover::recvfrom: wrong size: 0", ""}));
}

TEST_F(DiscoveryTest, DatagramOfOneByteIsRefusedWithItsSize) {
  Run({Arrives("\x12")});

  EXPECT_THAT(log_.Lines(), ElementsAre(LogLine{LogLevel::Error, "tblsvr.dscv.sz",
                                                "TableServer: Discover::recvfrom: wrong size: 1", ""}));
}

TEST_F(DiscoveryTest, DatagramOfTwoBytesMatchesTheEmptyGroup) {
  member_->group = "";
  Run({Arrives("\x12\x34")});

  EXPECT_THAT(member_.FoundPeers(), ElementsAre("2130706433:4660"));
}

TEST_F(DiscoveryTest, DatagramOfTwoBytesMatchesNoGroupThatHasAName) {
  Run({Arrives("\x12\x34")});

  EXPECT_THAT(log_.Lines(), IsEmpty());
  EXPECT_THAT(member_.FoundPeers(), IsEmpty());
}

TEST_F(DiscoveryTest, GroupWithANameDoesNotMatchTheEmptyGroup) {
  member_->group = "";
  Run(
      {Arrives("\x12\x34"
               "g")});

  EXPECT_THAT(log_.Lines(), IsEmpty());
  EXPECT_THAT(member_.FoundPeers(), IsEmpty());
}

TEST_F(DiscoveryTest, DatagramOf256BytesIsAccepted) {
  member_->group = std::string(254, 'g');
  Run({Arrives("\x12\x34" + std::string(254, 'g'))});

  EXPECT_THAT(member_.FoundPeers(), ElementsAre("2130706433:4660"));
}

TEST_F(DiscoveryTest, DatagramOf257BytesWhoseFirst256MatchIsRefusedWithItsSize) {
  member_->group = std::string(254, 'g');
  Run({Arrives("\x12\x34" + std::string(255, 'g'))});

  EXPECT_THAT(log_.Lines(), ElementsAre(LogLine{LogLevel::Error, "tblsvr.dscv.sz",
                                                "TableServer: Discover::recvfrom: wrong size: 257", ""}));
  EXPECT_THAT(member_.FoundPeers(), IsEmpty());
}

TEST_F(DiscoveryTest, AnnouncementOfAGroupOf255BytesIsRefusedByItsOwnMembers) {
  member_->group = std::string(255, 'g');
  Run({Arrives("\x12\x34" + std::string(255, 'g'))});

  EXPECT_THAT(log_.Lines(), ElementsAre(LogLine{LogLevel::Error, "tblsvr.dscv.sz",
                                                "TableServer: Discover::recvfrom: wrong size: 257", ""}));
  EXPECT_THAT(member_.FoundPeers(), IsEmpty());
}

TEST_F(DiscoveryTest, LongestDatagramOfAllIsRefusedWithItsSize) {
  Run({Arrives(std::string(65507, 'g'))});

  EXPECT_THAT(log_.Lines(), ElementsAre(LogLine{LogLevel::Error, "tblsvr.dscv.sz",
                                                "TableServer: Discover::recvfrom: wrong size: 65507", ""}));
}

TEST_F(DiscoveryTest, DatagramsAfterARefusedOneAreStillHeard) {
  Run({Arrives(""), Arrives("\x12\x34"
                            "group")});

  EXPECT_THAT(member_.FoundPeers(), ElementsAre("2130706433:4660"));
}

TEST_F(DiscoveryTest, InterruptedReceiveIsAFailureLikeAnyOther) {
  const Event has_datagram = [](pollfd* entries, int) {
    entries[2].revents = POLLIN;
    return 1;
  };
  const HookedHere recvfrom(Hooks().recvfrom, [](int, void*, std::size_t, int, sockaddr*, socklen_t*) -> ssize_t {
    errno = EINTR;
    return -1;
  });

  Run({has_datagram});

  EXPECT_THAT(log_.Lines(),
              ElementsAre(LogLine{LogLevel::Error, "tblsvr.dscv.rcv", "TableServer: Discover::recvfrom error 4", ""}));
}

TEST_F(DiscoveryTest, ReceiveThatFailsIsLoggedAndTheNextPassFollows) {
  const Event has_error = [](pollfd* entries, int) {
    entries[2].revents = POLLERR;
    return 1;
  };
  // In place of the fixture's.
  const HookedHere recvfrom(Hooks().recvfrom, [](int, void*, std::size_t, int, sockaddr*, socklen_t*) -> ssize_t {
    errno = ENOBUFS;
    return -1;
  });

  Run({has_error});

  EXPECT_THAT(log_.Lines(), ElementsAre(LogLine{LogLevel::Error, "tblsvr.dscv.rcv",
                                                "TableServer: Discover::recvfrom error 105", ""}));
  EXPECT_THAT(trace_, ElementsAre("0ms: send", "0ms: poll 60000", "0ms: poll 60000"));
}

TEST_F(DiscoveryTest, HandsItsFormatsToTheHookUnexpanded) {
  send_errors_ = {ENETUNREACH};
  const HookedHere recvfrom(Hooks().recvfrom, FailOnce(Hooks().recvfrom, ENOBUFS));

  Run({NetworkChanges(), Arrives(""), Arrives("")});

  EXPECT_THAT(log_.Formats("tblsvr.dscv."), ElementsAre("TableServer: Discover::sendto error %d",
                                                        "TableServer for %.*s::%s::%s(%p) notified of network change",
                                                        "TableServer: Discover::recvfrom error %d",
                                                        "TableServer: Discover::recvfrom: wrong size: %d"));
}
