// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gtest/gtest.h>

#include "support/FailingAllocations.h"
#include "tables/KeyWatcher.h"

namespace {

using Varnix::Row;
using Rows = std::vector<Row>;

class KeyWatcherTest : public testing::Test {
 protected:
  const std::shared_ptr<Varnix::Table> table_ = Varnix::MakeTable("t");
};

}  // namespace

TEST_F(KeyWatcherTest, OfAMissingKeyReportsNothingUntilItIsInserted) {
  const auto watcher = table_->Watch("k");
  table_->Set({"other", "v"});
  EXPECT_EQ(watcher->GetChanges(), Rows());

  table_->Set({"k", "v"});

  EXPECT_EQ(watcher->GetChanges(), (Rows{{"k", "v"}}));
  EXPECT_EQ(watcher->GetChanges(), Rows());
}

TEST_F(KeyWatcherTest, OfAPresentKeyReportsItsValueFirst) {
  table_->Set({"k", "v"});

  const auto watcher = table_->Watch("k");

  EXPECT_EQ(watcher->GetChanges(), (Rows{{"k", "v"}}));
  EXPECT_EQ(watcher->GetChanges(), Rows());
}

TEST_F(KeyWatcherTest, ReportsThreeUpdatesBeforeAReadAsOneChangeWithTheThirdValue) {
  table_->Set({"k", "0"});
  const auto watcher = table_->Watch("k");
  EXPECT_EQ(watcher->GetChanges(), (Rows{{"k", "0"}}));

  table_->Set({"k", "1"});
  table_->Set({"k", "2"});
  table_->Set({"k", "3"});

  EXPECT_EQ(watcher->GetChanges(), (Rows{{"k", "3"}}));
  EXPECT_EQ(watcher->GetChanges(), Rows());
}

TEST_F(KeyWatcherTest, IgnoresTheChangesOfOtherKeys) {
  table_->Set({"k", "v"});
  table_->Set({"kk", "1"});
  const auto watcher = table_->Watch("k");
  EXPECT_EQ(watcher->GetChanges(), (Rows{{"k", "v"}}));

  table_->Set({"kk", "2"});
  table_->Set({std::string("k\0", 2), "3"});

  EXPECT_EQ(watcher->GetChanges(), Rows());
}

TEST_F(KeyWatcherTest, LeavesTheOthersOfItsKeyInPlaceWhenItGoes) {
  const auto first = table_->Watch("k");
  auto second = table_->Watch("k");
  const auto third = table_->Watch("k");

  second.reset();
  table_->Set({"k", "v"});

  EXPECT_EQ(first->GetChanges(), (Rows{{"k", "v"}}));
  EXPECT_EQ(third->GetChanges(), (Rows{{"k", "v"}}));
}

TEST_F(KeyWatcherTest, IsToldOfEveryChangeThoughOthersOfItsKeyComeAndGo) {
  auto before_the_row = table_->Watch("k");
  const auto watcher = table_->Watch("k");
  table_->Set({"k", "1"});
  table_->Watch("k").reset();
  EXPECT_EQ(watcher->GetChanges(), (Rows{{"k", "1"}}));

  before_the_row.reset();
  table_->Set({"k", "2"});

  EXPECT_EQ(watcher->GetChanges(), (Rows{{"k", "2"}}));
}

TEST_F(KeyWatcherTest, ReportsTheValueOfTheMomentOfReading) {
  const auto watcher = table_->Watch("k");
  table_->Set({"k", "1"});
  table_->Set({"k", "2"});

  EXPECT_EQ(watcher->GetChanges(), (Rows{{"k", "2"}}));
}

TEST_F(KeyWatcherTest, LosesNoChangeWhenMemoryRunsOut) {
  const Row row(std::string(100, 'k'), std::string(1000, 'v'));
  table_->Set(row);
  const auto watcher = table_->Watch(row.first);
  Rows taken;
  bool failed = true;
  for (long n = 1; failed; ++n) {
    failed = RunsOutOfMemoryAt(n, [&] { taken = watcher->GetChanges(); });
    EXPECT_TRUE(failed || n > 1);
  }

  EXPECT_EQ(taken, (Rows{row}));
}
