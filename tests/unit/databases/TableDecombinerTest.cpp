// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "databases/TableDecombiner.h"
#include "names/CombinedKey.h"
#include "support/FailingAllocations.h"
#include "support/LogRecorder.h"
#include "support/SleepingThread.h"
#include "support/Tables.h"
#include "support/ThrowingHook.h"

namespace {

using Varnix::LogLevel;
using Rows = std::vector<Varnix::Row>;

class TableDecombinerTest : public testing::Test {
 protected:
  std::vector<std::shared_ptr<Varnix::Table>> Copies(const std::string& name) {
    return LocalTables("_vrx_.out_" + name + ".decombined");
  }

  TableDecombiner decombiner_{"decombined"};
};

}  // namespace

TEST_F(TableDecombinerTest, SetsARowIntoTheLocalCopyThatItsKeyNames) {
  decombiner_.Set({"\3cfgmode", "on"});

  ASSERT_EQ(Copies("cfg").size(), 1U);
  EXPECT_EQ(Contents(*Copies("cfg")[0]), (Rows{{"mode", "on"}}));
}

TEST_F(TableDecombinerTest, SetsARowWithAMalformedKeyUnderTheEmptyKeyOfTheEmptyTable) {
  for (const std::string& key : {std::string(), std::string(1, '\0'),
                                 std::string("\x0a"
                                             "12345")}) {
    TableDecombiner decombiner("malformed");

    decombiner.Set({key, "v"});

    EXPECT_EQ(Contents(*decombiner.GetTableTable()), (Rows{{"", ""}}));
    EXPECT_EQ(Contents(*decombiner.GetTable("")), (Rows{{"", "v"}}));
  }
}

TEST_F(TableDecombinerTest, MakesALocalCopyForTheFirstRowOnly) {
  decombiner_.Set({"\3cfga", "1"});
  const auto lists = decombiner_.GetTableTable()->WatchAll();
  EXPECT_EQ(lists->GetChanges(), (Rows{{"cfg", ""}}));

  decombiner_.Set({"\3cfgb", "2"});

  EXPECT_EQ(lists->GetChanges(), Rows());
  EXPECT_EQ(Copies("cfg").size(), 1U);
  EXPECT_EQ(Contents(*Copies("cfg")[0]), (Rows{{"a", "1"}, {"b", "2"}}));
}

TEST_F(TableDecombinerTest, GivesTheSameTableForTheSameName) {
  EXPECT_EQ(decombiner_.GetTable("cfg"), decombiner_.GetTable("cfg"));
  EXPECT_NE(decombiner_.GetTable("cfg"), decombiner_.GetTable("other"));
}

TEST_F(TableDecombinerTest, ListsItsTablesInTheTableTableOfItsDatabase) {
  EXPECT_EQ(LocalTables("_vrx_.tbltbl.decombined"),
            (std::vector<std::shared_ptr<Varnix::Table>>{decombiner_.GetTableTable()}));
}

TEST_F(TableDecombinerTest, CannotBeWatched) {
  EXPECT_EQ(decombiner_.Watch("k"), nullptr);
  EXPECT_EQ(decombiner_.WatchAll(), nullptr);
}

TEST_F(TableDecombinerTest, LogsTheListingTheNewTableAndTheRow) {
  LogRecorder log;

  decombiner_.Set({"\3cfgmode", "on"});

  const std::string name = "TableDecombiner(" + AddressOf(&decombiner_) + ")";
  const std::string copy = AddressOf(Copies("cfg").at(0).get());
  EXPECT_EQ(log.Lines(),
            (std::vector<LogLine>{
                {LogLevel::Debug, "tbl.set.ins",
                 "Table(" + AddressOf(decombiner_.GetTableTable().get()) + ") inserting row for cfg (0 bytes)", ""},
                {LogLevel::Debug, "tblcmbn.create", name + " created table cfg -> " + copy, ""},
                {LogLevel::Debug, "tblcmbn.set", name + " setting cfg:mode (2 bytes)", ""},
                {LogLevel::Debug, "tbl.set.ins", "Table(" + copy + ") inserting row for mode (2 bytes)", ""},
            }));
}

TEST_F(TableDecombinerTest, IsWholeAfterTheLogHookHasThrownAnywhere) {
  for (int n = 1;; ++n) {
    TableDecombiner decombiner("throwing");
    bool thrown = false;
    {
      const ThrowingHook hook(n);
      try {
        decombiner.Set({"\3cfgmode", "on"});
      } catch (const HookError&) {
        thrown = true;
      }
    }
    // What is listed is made, and what is made is listed.
    EXPECT_EQ(LocalTables("_vrx_.out_cfg.throwing").size(), Contents(*decombiner.GetTableTable()).size());

    decombiner.Set({"\3cfgmode", "on"});

    EXPECT_EQ(Contents(*decombiner.GetTableTable()), (Rows{{"cfg", ""}}));
    EXPECT_EQ(Contents(*decombiner.GetTable("cfg")), (Rows{{"mode", "on"}}));
    if (!thrown) {
      EXPECT_EQ(n, 5);  // It logs four lines.
      return;
    }
  }
}

TEST_F(TableDecombinerTest, LogsAMalformedKeyAsTwoEmptyHalves) {
  decombiner_.GetTable("");
  LogRecorder log;

  decombiner_.Set(
      {"\x0a"
       "12345",
       "value"});

  EXPECT_EQ(log.Lines("tblcmbn.set"),
            (std::vector<LogLine>{{LogLevel::Debug, "tblcmbn.set",
                                   "TableDecombiner(" + AddressOf(&decombiner_) + ") setting : (5 bytes)", ""}}));
}

TEST_F(TableDecombinerTest, PutsTheRowsOfATableWithALongNameUnderItsFirst255Bytes) {
  decombiner_.Set({CombinedKey(std::string(300, 'n'), "k"), "v"});

  EXPECT_EQ(Contents(*decombiner_.GetTableTable()), (Rows{{std::string(255, 'n'), ""}}));
  ASSERT_EQ(Copies(std::string(255, 'n')).size(), 1U);
  EXPECT_EQ(Contents(*Copies(std::string(255, 'n'))[0]), (Rows{{"k", "v"}}));
}

TEST_F(TableDecombinerTest, KeepsZeroBytes) {
  decombiner_.Set({std::string("\3a\0bk\0", 6), std::string("\0v", 2)});

  ASSERT_EQ(Copies(std::string("a\0b", 3)).size(), 1U);
  EXPECT_EQ(Contents(*Copies(std::string("a\0b", 3))[0]), (Rows{{std::string("k\0", 2), std::string("\0v", 2)}}));
}

TEST_F(TableDecombinerTest, SetsARowWithAnEmptyKeyOfItsOwnTable) {
  decombiner_.Set({"\3cfg", "v"});

  EXPECT_EQ(Contents(*decombiner_.GetTable("cfg")), (Rows{{"", "v"}}));
}

TEST_F(TableDecombinerTest, TellsTheWatchersOfTheTableTableOfANewTable) {
  const auto watcher = decombiner_.GetTableTable()->Watch("cfg");
  EXPECT_EQ(watcher->GetChanges(), Rows());

  decombiner_.GetTable("cfg");

  EXPECT_EQ(watcher->GetChanges(), (Rows{{"cfg", ""}}));
}

TEST_F(TableDecombinerTest, LogsNothingForATableThatIsThere) {
  decombiner_.GetTable("cfg");
  LogRecorder log;

  decombiner_.GetTable("cfg");

  EXPECT_TRUE(log.Lines().empty());
}

TEST_F(TableDecombinerTest, LeavesItsTablesToThoseWhoHoldThem) {
  auto decombiner = std::make_shared<TableDecombiner>("short-lived");
  const auto held = decombiner->GetTable("held");
  decombiner->GetTable("not held");

  decombiner.reset();

  EXPECT_EQ(LocalTables("_vrx_.out_not held.short-lived").size(), 0U);
  EXPECT_EQ(LocalTables("_vrx_.tbltbl.short-lived").size(), 0U);
  held->Set({"k", "v"});
  EXPECT_EQ(Contents(*held), (Rows{{"k", "v"}}));
}

TEST_F(TableDecombinerTest, GivesATableToOthersWhileARowIsSetIntoIt) {
  const auto table = decombiner_.GetTable("cfg");
  std::future<std::shared_ptr<Varnix::Table>> other;
  std::future_status status = std::future_status::deferred;
  SetLogHook([&](LogLevel, const char* tag, const char*, va_list) {
    if (std::string(tag) != "tbl.set.ins") return;
    other = std::async(std::launch::async, [&] { return decombiner_.GetTable("cfg"); });
    status = other.wait_for(std::chrono::seconds(10));
  });

  decombiner_.Set({"\3cfgmode", "on"});

  SetLogHook(DefaultLogger);
  EXPECT_EQ(status, std::future_status::ready);
  EXPECT_EQ(other.get(), table);
}

TEST_F(TableDecombinerTest, GivesATableToNobodyWhileItIsListedAndLogged) {
  decombiner_.GetTable("other");
  for (const std::string& step : {std::string("tbl.set.ins"), std::string("tblcmbn.create")}) {
    SCOPED_TRACE(step);
    std::atomic<bool> given{false};
    std::optional<SleepingThread> other;
    bool given_in_the_hook = true;
    SetLogHook([&](LogLevel, const char* tag, const char*, va_list) {
      if (step != tag) return;
      other.emplace([&] {
        decombiner_.GetTable("other");
        given = true;
      });
      given_in_the_hook = given;
    });

    decombiner_.GetTable("of " + step);

    SetLogHook(DefaultLogger);
    EXPECT_TRUE(other);
    EXPECT_FALSE(given_in_the_hook);
    other.reset();
    EXPECT_TRUE(given);
  }
}

TEST_F(TableDecombinerTest, MakesOneTableForThreadsThatAllSetItsFirstRow) {
  constexpr int kThreads = 4;
  const auto listings = decombiner_.GetTableTable()->WatchAll();
  LogRecorder log;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([this, i] { decombiner_.Set({"\3cfg" + std::to_string(i), "v"}); });
  }
  for (std::thread& thread : threads) thread.join();

  EXPECT_EQ(log.Lines("tblcmbn.create").size(), 1U);
  EXPECT_EQ(listings->GetChanges(), (Rows{{"cfg", ""}}));
  EXPECT_EQ(listings->GetChanges(), Rows());
  EXPECT_EQ(Contents(*decombiner_.GetTable("cfg")).size(), static_cast<std::size_t>(kThreads));
}

TEST_F(TableDecombinerTest, SetsAKnownRowOfUsualSizeWithoutAnAllocation) {
  const std::string key = CombinedKey("a name that does not fit into the string itself", std::string(100, 'k'));
  decombiner_.Set({key, std::string(100, '1')});
  const Varnix::Row row(key, std::string(100, '2'));

  EXPECT_FALSE(RunsOutOfMemoryAt(1, [&] { decombiner_.Set(row); }));

  const auto table = decombiner_.GetTable("a name that does not fit into the string itself");
  EXPECT_EQ(Contents(*table), (Rows{{std::string(100, 'k'), std::string(100, '2')}}));
}

TEST_F(TableDecombinerTest, KeepsALongValueOnlyOnce) {
  decombiner_.Set({"\1tk", std::string(100, '1')});
  const Varnix::Row row("\1tk", std::string(10'000, '2'));

  EXPECT_EQ(LeavesAllocated([&] { decombiner_.Set(row); }), -1);  // What was kept for the next value is given back.
}

TEST_F(TableDecombinerTest, KeepsALongKeyOnlyOnce) {
  const Varnix::Row row("\1t" + std::string(10'000, 'k'), "2");
  decombiner_.Set(row);
  decombiner_.Set({"\1t" + std::string(100, 'k'), "1"});

  EXPECT_EQ(LeavesAllocated([&] { decombiner_.Set(row); }), -1);
}

TEST_F(TableDecombinerTest, IsWholeAfterMemoryRanOutAnywhere) {
  const Varnix::Row row(CombinedKey("a name that does not fit into the string itself", "k"), std::string(100, 'v'));
  for (long n = 1;; ++n) {
    TableDecombiner decombiner("without memory");
    const bool failed = RunsOutOfMemoryAt(n, [&] { decombiner.Set(row); });
    // What is listed is made, and what is made is listed.
    EXPECT_EQ(LocalTables("_vrx_.out_a name that does not fit into the string itself.without memory").size(),
              Contents(*decombiner.GetTableTable()).size());

    decombiner.Set(row);

    EXPECT_EQ(Contents(*decombiner.GetTableTable()).size(), 1U);
    EXPECT_EQ(Contents(*decombiner.GetTable("a name that does not fit into the string itself")),
              (Rows{{"k", std::string(100, 'v')}}));
    if (!failed) return;
    ASSERT_LT(n, 100);
  }
}
