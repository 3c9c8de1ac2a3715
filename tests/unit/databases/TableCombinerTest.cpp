// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "databases/TableCombiner.h"
#include "support/FailingAllocations.h"
#include "support/LogRecorder.h"
#include "support/Tables.h"
#include "support/ThrowingHook.h"

namespace {

using Varnix::LogLevel;
using Rows = std::vector<Varnix::Row>;

class TableCombinerTest : public testing::Test {
 protected:
  const std::shared_ptr<Varnix::Table> combined_ = Varnix::MakeTable("combined");
  const std::shared_ptr<Varnix::Table> local_ = Varnix::MakeTable("local");
  TableCombiner combiner_{combined_, local_, "cfg"};
};

}  // namespace

TEST_F(TableCombinerTest, SetsTheRowUnderItsCombinedKeyAndUnderItsOwn) {
  combiner_.Set({"mode", "on"});

  EXPECT_EQ(Contents(*combined_), (Rows{{"\3cfgmode", "on"}}));
  EXPECT_EQ(Contents(*local_), (Rows{{"mode", "on"}}));
}

TEST_F(TableCombinerTest, LogsAndThenSetsTheCombinedTableBeforeTheLocalOne) {
  LogRecorder log;

  combiner_.Set({"mode", "on"});

  EXPECT_EQ(log.Lines(), (std::vector<LogLine>{
                             {LogLevel::Debug, "tblcmbn.set",
                              "TableCombiner(" + AddressOf(&combiner_) + ") setting cfg:mode (2 bytes)", ""},
                             {LogLevel::Debug, "tbl.set.ins",
                              "Table(" + AddressOf(combined_.get()) + ") inserting row for \3cfgmode (2 bytes)", ""},
                             {LogLevel::Debug, "tbl.set.ins",
                              "Table(" + AddressOf(local_.get()) + ") inserting row for mode (2 bytes)", ""},
                         }));
}

TEST_F(TableCombinerTest, WatchesTheLocalCopy) {
  const auto key = combiner_.Watch("mode");
  const auto all = combiner_.WatchAll();

  local_->Set({"mode", "from a peer"});

  EXPECT_EQ(key->GetChanges(), (Rows{{"mode", "from a peer"}}));
  EXPECT_EQ(all->GetChanges(), (Rows{{"mode", "from a peer"}}));
}

TEST_F(TableCombinerTest, SetsNothingWhenTheLogHookThrowsAtOnce) {
  {
    const ThrowingHook hook(1);
    EXPECT_THROW(combiner_.Set({"mode", "on"}), HookError);
  }

  EXPECT_EQ(Contents(*combined_), Rows());
  EXPECT_EQ(Contents(*local_), Rows());
}

TEST_F(TableCombinerTest, EitherSetsOrThrowsWhereverTheLogHookThrows) {
  const std::vector<std::pair<Rows, Rows>> contents_after_throw_at_line{
      {{}, {}},                     // Its own.
      {{}, {}},                     // The combined table's.
      {{{"\3cfgmode", "on"}}, {}},  // The local copy's: the combined row is set already.
  };
  for (std::size_t n = 1; n <= contents_after_throw_at_line.size(); ++n) {
    const auto combined = Varnix::MakeTable("combined");
    const auto local = Varnix::MakeTable("local");
    TableCombiner combiner(combined, local, "cfg");
    {
      const ThrowingHook hook(static_cast<int>(n));
      EXPECT_THROW(combiner.Set({"mode", "on"}), HookError);
    }
    EXPECT_EQ(Contents(*combined), contents_after_throw_at_line[n - 1].first);
    EXPECT_EQ(Contents(*local), contents_after_throw_at_line[n - 1].second);

    combiner.Set({"mode", "on"});

    EXPECT_EQ(Contents(*combined), (Rows{{"\3cfgmode", "on"}}));
    EXPECT_EQ(Contents(*local), (Rows{{"mode", "on"}}));
  }
}

TEST_F(TableCombinerTest, WarnsOfARowThatIsTooLongForPeersAndSetsIt) {
  struct TooLong {
    Varnix::Row row;
    std::string sizes;
  };
  for (const auto& [row, sizes] :
       std::vector<TooLong>{{{"1" + std::string(4091, '\0'), "v"},
                             "1 is too long for peers: combined key 4096 of 4095 bytes, value 1 of 1048575"},
                            {{"2" + std::string(8187, '\0'), ""},
                             "2 is too long for peers: combined key 8192 of 4095 bytes, value 0 of 1048575"},
                            {{"3", std::string(1'048'576, 'v')},
                             "3 is too long for peers: combined key 5 of 4095 bytes, value 1048576 of 1048575"}}) {
    LogRecorder log;

    combiner_.Set(row);

    EXPECT_EQ(log.Tags(), (std::vector<std::string>{"tblcmbn.set", "tblcmbn.set.long", "tbl.set.ins", "tbl.set.ins"}));
    EXPECT_EQ(log.Lines()[1], (LogLine{LogLevel::Warning, "tblcmbn.set.long",
                                       "TableCombiner(" + AddressOf(&combiner_) + ") row cfg:" + sizes, ""}));
    EXPECT_EQ(combiner_.Watch(row.first)->GetChanges(), Rows{row});
  }
}

TEST_F(TableCombinerTest, DoesNotWarnOfTheLongestRowThatPeersGetWhole) {
  LogRecorder log;

  combiner_.Set({std::string(4091, 'k'), std::string(1'048'575, 'v')});

  EXPECT_EQ(log.Tags(), (std::vector<std::string>{"tblcmbn.set", "tbl.set.ins", "tbl.set.ins"}));
}

TEST_F(TableCombinerTest, SetsNothingWhenTheLogHookThrowsAtTheWarning) {
  const Varnix::Row row(std::string(5000, 'k'), "v");
  {
    const ThrowingHook hook(2);
    EXPECT_THROW(combiner_.Set(row), HookError);
  }
  EXPECT_EQ(Contents(*combined_), Rows());
  EXPECT_EQ(Contents(*local_), Rows());

  combiner_.Set(row);

  EXPECT_EQ(Contents(*local_), Rows{row});
}

TEST_F(TableCombinerTest, CutsItsNameAt255BytesInTheCombinedTableOnly) {
  TableCombiner combiner(combined_, local_, std::string(300, 'n'));

  combiner.Set({"k", "v"});

  EXPECT_EQ(Contents(*combined_), (Rows{{"\xff" + std::string(255, 'n') + "k", "v"}}));
  EXPECT_EQ(Contents(*local_), (Rows{{"k", "v"}}));
}

TEST_F(TableCombinerTest, KeepsZeroBytes) {
  TableCombiner combiner(combined_, local_, std::string("a\0b", 3));

  combiner.Set({std::string("k\0", 2), std::string("\0v", 2)});

  EXPECT_EQ(Contents(*combined_), (Rows{{std::string("\3a\0bk\0", 6), std::string("\0v", 2)}}));
  EXPECT_EQ(Contents(*local_), (Rows{{std::string("k\0", 2), std::string("\0v", 2)}}));
}

TEST_F(TableCombinerTest, TakesAnEmptyNameKeyAndValue) {
  TableCombiner combiner(combined_, local_, "");

  combiner.Set({"", ""});

  EXPECT_EQ(Contents(*combined_), (Rows{{std::string(1, '\0'), ""}}));
  EXPECT_EQ(Contents(*local_), (Rows{{"", ""}}));
}

TEST_F(TableCombinerTest, LogsAnUnchangedRowThreeTimesAndTellsNobody) {
  combiner_.Set({"mode", "on"});
  const auto watcher = combiner_.Watch("mode");
  watcher->GetChanges();
  LogRecorder log;

  combiner_.Set({"mode", "on"});

  EXPECT_EQ(log.Tags(), (std::vector<std::string>{"tblcmbn.set", "tbl.set.upd", "tbl.set.upd"}));
  EXPECT_EQ(watcher->GetChanges(), Rows());
}

TEST_F(TableCombinerTest, SetsAKnownRowOfUsualSizeWithoutAnAllocation) {
  combiner_.Set({std::string(100, 'k'), std::string(100, '1')});
  const Varnix::Row row(std::string(100, 'k'), std::string(100, '2'));

  EXPECT_FALSE(RunsOutOfMemoryAt(1, [&] { combiner_.Set(row); }));

  EXPECT_EQ(Contents(*combined_), (Rows{{"\3cfg" + std::string(100, 'k'), std::string(100, '2')}}));
  EXPECT_EQ(Contents(*local_), (Rows{row}));
}

TEST_F(TableCombinerTest, KeepsALongValueInItsTwoTablesAlone) {
  combiner_.Set({"k", std::string(100, '1')});
  const Varnix::Row row("k", std::string(10'000, '2'));

  EXPECT_EQ(LeavesAllocated([&] { combiner_.Set(row); }), -1);  // What was kept for the next value is given back.
}

TEST_F(TableCombinerTest, KeepsALongKeyInItsTwoTablesAlone) {
  combiner_.Set({std::string(100, 'k'), "1"});
  const Varnix::Row row(std::string(10'000, 'k'), "2");
  combiner_.Set(row);
  combiner_.Set({std::string(100, 'k'), "2"});

  EXPECT_EQ(LeavesAllocated([&] { combiner_.Set(row); }), -1);
}

TEST_F(TableCombinerTest, SetsTheRowForThePeersOrNothingWhenMemoryRunsOut) {
  const Varnix::Row row(std::string(100, 'k'), std::string(100, 'v'));
  const Varnix::Row combined_row("\3cfg" + std::string(100, 'k'), std::string(100, 'v'));
  for (long n = 1;; ++n) {
    const auto combined = Varnix::MakeTable("combined");
    const auto local = Varnix::MakeTable("local");
    TableCombiner combiner(combined, local, "cfg");

    const bool failed = RunsOutOfMemoryAt(n, [&] { combiner.Set(row); });

    const Rows shared = Contents(*combined);
    EXPECT_TRUE(shared.empty() || shared == Rows{combined_row});
    EXPECT_EQ(Contents(*local).empty(), failed);
    combiner.Set(row);
    EXPECT_EQ(Contents(*combined), Rows{combined_row});
    EXPECT_EQ(Contents(*local), Rows{row});
    if (!failed) return;
    ASSERT_LT(n, 100);
  }
}

TEST_F(TableCombinerTest, KeepsItsTablesAlive) {
  auto combined = Varnix::MakeTable("combined");
  auto local = Varnix::MakeTable("local");
  const std::weak_ptr<Varnix::Table> combined_alive = combined;
  const std::weak_ptr<Varnix::Table> local_alive = local;
  auto combiner = std::make_shared<TableCombiner>(std::move(combined), std::move(local), "cfg");
  EXPECT_FALSE(combined_alive.expired() || local_alive.expired());

  combiner.reset();

  EXPECT_TRUE(combined_alive.expired() && local_alive.expired());
}
