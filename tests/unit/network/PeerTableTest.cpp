// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "names/CombinedKey.h"
#include "network/PeerTable.h"
#include "support/FailingAllocations.h"
#include "support/ForkedChild.h"
#include "support/Tables.h"

namespace {

using Rows = std::vector<Varnix::Row>;

const PeerPlace kPlace{0x0A000001, 4711};

class PeerTableTest : public testing::Test {
 protected:
  PeerTable peers_{"db"};
  const std::string press_ = CombinedKey("press", "ctl");
};

}  // namespace

TEST_F(PeerTableTest, IsMadeAtTheFirstCall) {
  EXPECT_TRUE(LocalTables("_vrx_.peertbl.db").empty());

  const auto table = peers_.GetTable();

  EXPECT_EQ(LocalTables("_vrx_.peertbl.db"), std::vector<std::shared_ptr<Varnix::Table>>{table});
  EXPECT_EQ(peers_.GetTable(), table);
}

TEST_F(PeerTableTest, ShowsWhereAPeerIsWhileItsStreamLives) {
  const auto watcher = peers_.GetTable()->WatchAll();
  {
    const PeerTableEntry stream(peers_, press_, kPlace);
    EXPECT_EQ(Drain(*watcher), (Rows{{"press::ctl", "10.0.0.1:4711"}}));
  }
  EXPECT_EQ(Drain(*watcher), (Rows{{"press::ctl", ""}}));

  const PeerTableEntry again(peers_, press_, {0x0A000002, 1});
  EXPECT_EQ(Drain(*watcher), (Rows{{"press::ctl", "10.0.0.2:1"}}));
}

TEST_F(PeerTableTest, BeginsWithTheStreamsThatLive) {
  const PeerTableEntry press(peers_, press_, kPlace);
  { const PeerTableEntry gone(peers_, CombinedKey("gone", "x"), kPlace); }
  const PeerTableEntry pump(peers_, CombinedKey("pump", ""), {0xFFFFFFFF, 65535});

  EXPECT_EQ(Contents(*peers_.GetTable()), (Rows{{"press::ctl", "10.0.0.1:4711"}, {"pump::", "255.255.255.255:65535"}}));
}

TEST_F(PeerTableTest, ShowsIdentitiesOfAnyBytes) {
  const std::string zeros("\3d\0d\0p", 6);
  const PeerTableEntry first(peers_, zeros, kPlace);
  const PeerTableEntry empty(peers_, "", kPlace);
  const PeerTableEntry too_short(peers_, "\xFFxy", kPlace);

  const Rows rows = Contents(*peers_.GetTable());

  ASSERT_EQ(rows.size(), 3U);
  EXPECT_EQ(rows[0].first, std::string("d\0d::\0p", 7));
  EXPECT_EQ(rows[1].first, "::");
  EXPECT_EQ(rows[2].first, "xy::");
}

TEST_F(PeerTableTest, ShowsTheOtherOfTwoThatLookAlikeWhenOneHasEnded) {
  const auto table = peers_.GetTable();
  const PeerTableEntry first(peers_, CombinedKey("a::b", "c"), kPlace);
  { const PeerTableEntry second(peers_, CombinedKey("a", "b::c"), {0x0A000002, 1}); }

  EXPECT_EQ(Contents(*table), (Rows{{"a::b::c", "10.0.0.1:4711"}}));
}

TEST_F(PeerTableTest, ShowsNothingOfAStreamForWhichThereIsNoMemory) {
  const auto table = peers_.GetTable();

  for (long n = 1; RunsOutOfMemoryAt(n, [this] { const PeerTableEntry stream(peers_, press_, kPlace); }); ++n) {
    EXPECT_EQ(Contents(*table), Rows()) << n;
  }

  EXPECT_EQ(Contents(*table), (Rows{{"press::ctl", ""}}));
}

TEST_F(PeerTableTest, ShowsTheEndOfAStreamAlsoWithoutMemory) {
  const auto table = peers_.GetTable();
  std::optional<PeerTableEntry> stream;
  stream.emplace(peers_, press_, kPlace);

  EXPECT_FALSE(RunsOutOfMemoryAt(1, [&] { stream.reset(); }));

  EXPECT_EQ(Contents(*table), (Rows{{"press::ctl", ""}}));
}

TEST_F(PeerTableTest, IsEmptyWhenAForkedChildMakesItThoughItsParentHasPeers) {
  const PeerTableEntry stream(peers_, press_, kPlace);

  EXPECT_TRUE(HoldsInForkedChild([this] {
    peers_.EndAllInChild();
    return Contents(*peers_.GetTable()).empty();
  }));
}
