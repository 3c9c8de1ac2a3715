// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "StartedServer.h"
#include "names/CombinedKey.h"
#include "network/ActiveESNs.h"
#include "support/LogRecorder.h"

using namespace std::chrono_literals;

namespace {

using testing::IsEmpty;
using Varnix::LogLevel;

// Whole servers, which announce themselves on this machine, in a group that no other process is in.
class SharingTest : public testing::Test {
 protected:
  struct Tables {
    const std::shared_ptr<Varnix::Table> received = Varnix::MakeTable("received");
    const std::shared_ptr<Varnix::Table> sent = Varnix::MakeTable("sent");
  };

  static StartedServer Start(const std::string& process, const Tables& tables) {
    return {CombinedKey("dev", process), "db", tables.received, tables.sent};
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

}  // namespace

TEST_F(SharingTest, TwoServersOfAGroupReceiveEachOthersRows) {
  const Tables left_tables;
  const Tables right_tables;
  left_tables.sent->Set({"\x01tl", "of left"});
  right_tables.sent->Set({"\x01tr", "of right"});

  const StartedServer left = Start("left", left_tables);
  const StartedServer right = Start("right", right_tables);

  EXPECT_TRUE(Arrives(left_tables, "\x01tr", "of right"));
  EXPECT_TRUE(Arrives(right_tables, "\x01tl", "of left"));
}

TEST_F(SharingTest, TwoServersOfAGroupEndUpWithOneConnectionInEachDirection) {
  const StartedServer left = Start("left", {});
  const StartedServer right = Start("right", {});

  EXPECT_TRUE(AllHaveMet());

  EXPECT_EQ(Count("tblsvr.fnd", " found peer: dev::left 2130706433:" + std::to_string(left.Port())), 1U);
  EXPECT_EQ(Count("tblsvr.fnd", " found peer: dev::right 2130706433:" + std::to_string(right.Port())), 1U);
  EXPECT_THAT(LinesOfReceiveLoops(), IsEmpty());
}

TEST_F(SharingTest, AnnouncementOfAPeerThatIsReceivedFromLeavesItsStreamAlone) {
  const Tables left_tables;
  const Tables right_tables;
  const StartedServer left = Start("left", left_tables);
  const StartedServer right = Start("right", right_tables);
  ASSERT_TRUE(AllHaveMet());
  log_.Clear();

  left->NetworkChanged();

  EXPECT_TRUE(Eventually([&] { return Count("tblrcvr.gotuid", "dev::left") >= 2; }));  // Both have heard it.
  left_tables.sent->Set({"\x01tl", "after"});
  EXPECT_TRUE(Arrives(right_tables, "\x01tl", "after"));
  EXPECT_EQ(Count("tblsvr.fnd"), 0U);
}

TEST_F(SharingTest, PeerThatIsFoundTwiceInQuickSuccessionGivesOneStream) {
  const StartedServer peer = Start("peer", {});
  const StartedServer other = Start("other", {});
  ASSERT_TRUE(AllHaveMet());
  const std::size_t begun = Count("tblrcvr.ctor");
  const std::size_t found = Count("tblsvr.fnd");
  const auto esns = std::make_shared<ActiveESNs>([] {});

  other->FoundPeer(INADDR_LOOPBACK, peer.Port(), esns);
  other->FoundPeer(INADDR_LOOPBACK, peer.Port(), esns);

  // One of the two streams lasts; the other, and the one in which the peer connects back, end silently. So may one
  // more, of those with which they have met.
  EXPECT_TRUE(Eventually([&] {
    const std::vector<LogLine> lines = log_.Lines();
    const std::size_t streams = Count(lines, "tblrcvr.ctor");
    return Count(lines, "tblsvr.fnd") == found + 1 && streams >= begun + 3 &&
           streams - Count(lines, "tblrcvr.dtor") == 3;
  }));
  EXPECT_THAT(LinesOfReceiveLoops(), IsEmpty());
}

TEST_F(SharingTest, ServerThatHearsItselfConnectsToItselfAndEndsThatSilently) {
  StartedServer server = Start("self", {});

  EXPECT_TRUE(log_.Eventually("tblrcvr.gotuid"));
  EXPECT_TRUE(log_.Eventually("tblrcvr.dtor"));
  server.Destroy();

  EXPECT_EQ(Count("tblrcvr.gotuid", "dev::self"), 1U);
  EXPECT_EQ(Count("tblsvr.fnd"), 0U);
  EXPECT_THAT(LinesOfReceiveLoops(), IsEmpty());
}

TEST_F(SharingTest, EndedReceiversMakeRoomForOthers) {
  const StartedServer server = Start("self", {});
  const auto esns = std::make_shared<ActiveESNs>([] {});
  std::atomic<int> ended{0};
  std::atomic<int> refused{0};
  SetLogHook([&](LogLevel, const char* tag, const char*, va_list) {
    ended += std::strcmp(tag, "tblrcvr.dtor") == 0 ? 1 : 0;
    refused += std::strcmp(tag, "tblsvr.fnd.thread") == 0 ? 1 : 0;
  });

  for (int i = 0; i < 1100; ++i) {  // More than there may be at once.
    const int before = ended;
    server->FoundPeer(INADDR_LOOPBACK, server.Port(), esns);
    ASSERT_TRUE(Eventually([&] { return ended > before || refused > 0; }));
  }

  EXPECT_EQ(refused, 0);
  server->Stop();
}
