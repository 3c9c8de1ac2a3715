// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gtest/gtest.h>

#include "support/FailingAllocations.h"
#include "tables/AllWatcher.h"

namespace {

using Varnix::Row;
using Rows = std::vector<Row>;

class AllWatcherTest : public testing::Test {
 protected:
  const std::shared_ptr<Varnix::Table> table_ = Varnix::MakeTable("t");
};

}  // namespace

TEST_F(AllWatcherTest, OfAnEmptyTableReportsNothingAndThenEachNewRowOnce) {
  const auto watcher = table_->WatchAll();
  EXPECT_EQ(watcher->GetChanges(), Rows());

  table_->Set({"k", "v"});

  EXPECT_EQ(watcher->GetChanges(), (Rows{{"k", "v"}}));
  EXPECT_EQ(watcher->GetChanges(), Rows());
}

TEST_F(AllWatcherTest, ReportsTheRowsThatAreThereOldestChangeFirst) {
  table_->Set({"a", "1"});
  table_->Set({"b", "2"});
  table_->Set({"a", "3"});

  const auto watcher = table_->WatchAll();

  EXPECT_EQ(watcher->GetChanges(), (Rows{{"b", "2"}}));
  EXPECT_EQ(watcher->GetChanges(), (Rows{{"a", "3"}}));
  EXPECT_EQ(watcher->GetChanges(), Rows());
}

TEST_F(AllWatcherTest, ReportsARowChangedBeforeItWasReadOnceAtItsNewPlace) {
  table_->Set({"a", "1"});
  table_->Set({"b", "2"});
  const auto watcher = table_->WatchAll();

  table_->Set({"a", "3"});

  EXPECT_EQ(watcher->GetChanges(), (Rows{{"b", "2"}}));
  EXPECT_EQ(watcher->GetChanges(), (Rows{{"a", "3"}}));
  EXPECT_EQ(watcher->GetChanges(), Rows());
}

TEST_F(AllWatcherTest, StepsOverTheRowAtItsCursorWhenThatIsUpdated) {
  for (const char* key : {"a", "b", "c"}) table_->Set({key, "1"});
  const auto watcher = table_->WatchAll();
  EXPECT_EQ(watcher->GetChanges(), (Rows{{"a", "1"}}));

  table_->Set({"b", "2"});

  EXPECT_EQ(watcher->GetChanges(), (Rows{{"c", "1"}}));
  EXPECT_EQ(watcher->GetChanges(), (Rows{{"b", "2"}}));
  EXPECT_EQ(watcher->GetChanges(), Rows());
}

TEST_F(AllWatcherTest, StaysAtItsRowWhenOneBehindItIsUpdated) {
  for (const char* key : {"a", "b", "c"}) table_->Set({key, "1"});
  const auto watcher = table_->WatchAll();

  table_->Set({"b", "2"});

  EXPECT_EQ(watcher->GetChanges(), (Rows{{"a", "1"}}));
  EXPECT_EQ(watcher->GetChanges(), (Rows{{"c", "1"}}));
  EXPECT_EQ(watcher->GetChanges(), (Rows{{"b", "2"}}));
  EXPECT_EQ(watcher->GetChanges(), Rows());
}

TEST_F(AllWatcherTest, ReportsTheLastRowOnceWithItsNewValueWhenItIsUpdatedAtTheCursor) {
  table_->Set({"a", "1"});
  const auto watcher = table_->WatchAll();

  table_->Set({"a", "2"});

  EXPECT_EQ(watcher->GetChanges(), (Rows{{"a", "2"}}));
  EXPECT_EQ(watcher->GetChanges(), Rows());
}

TEST_F(AllWatcherTest, ReportsARowAgainThatChangesAfterItWasRead) {
  table_->Set({"a", "1"});
  table_->Set({"b", "1"});
  const auto watcher = table_->WatchAll();
  EXPECT_EQ(watcher->GetChanges(), (Rows{{"a", "1"}}));

  table_->Set({"a", "2"});

  EXPECT_EQ(watcher->GetChanges(), (Rows{{"b", "1"}}));
  EXPECT_EQ(watcher->GetChanges(), (Rows{{"a", "2"}}));
}

TEST_F(AllWatcherTest, ThatHasReadEverythingReportsAnUpdateOfAnyRow) {
  table_->Set({"a", "1"});
  table_->Set({"b", "1"});
  const auto watcher = table_->WatchAll();
  while (!watcher->GetChanges().empty()) {
  }

  table_->Set({"a", "2"});
  table_->Set({"c", "1"});

  EXPECT_EQ(watcher->GetChanges(), (Rows{{"a", "2"}}));
  EXPECT_EQ(watcher->GetChanges(), (Rows{{"c", "1"}}));
  EXPECT_EQ(watcher->GetChanges(), Rows());
}

TEST_F(AllWatcherTest, ReportsTheChangesInTheOrderInWhichTheyWereMade) {
  const auto watcher = table_->WatchAll();

  table_->Set({"a", "1"});
  table_->Set({"b", "1"});
  table_->Set({"a", "2"});
  table_->Set({"c", "1"});

  EXPECT_EQ(watcher->GetChanges(), (Rows{{"b", "1"}}));
  EXPECT_EQ(watcher->GetChanges(), (Rows{{"a", "2"}}));
  EXPECT_EQ(watcher->GetChanges(), (Rows{{"c", "1"}}));
  EXPECT_EQ(watcher->GetChanges(), Rows());
}

TEST_F(AllWatcherTest, TwoOfOneTableDoNotDisturbEachOther) {
  table_->Set({"a", "1"});
  const auto one = table_->WatchAll();
  const auto other = table_->WatchAll();

  EXPECT_EQ(one->GetChanges(), (Rows{{"a", "1"}}));

  EXPECT_EQ(other->GetChanges(), (Rows{{"a", "1"}}));
}

TEST_F(AllWatcherTest, LosesNoChangeWhenMemoryRunsOut) {
  const Row row(std::string(100, 'k'), std::string(1000, 'v'));
  table_->Set(row);
  const auto watcher = table_->WatchAll();
  Rows taken;
  bool failed = true;
  for (long n = 1; failed; ++n) {
    failed = RunsOutOfMemoryAt(n, [&] { taken = watcher->GetChanges(); });
    EXPECT_TRUE(failed || n > 1);
  }

  EXPECT_EQ(taken, (Rows{row}));
}
