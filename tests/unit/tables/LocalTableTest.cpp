// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/FailingAllocations.h"
#include "support/FailingLocks.h"
#include "support/LogRecorder.h"
#include "support/SleepingThread.h"
#include "support/Tables.h"
#include "support/ThrowingHook.h"
#include "tables/LocalTable.h"

namespace {

using Varnix::LogLevel;
using Varnix::Row;

bool WaitsForTheTableLock(const std::function<void()>& call) {
  std::atomic<bool> through{false};
  std::optional<SleepingThread> waiting;
  const MutexLock lock(table_lock);
  waiting.emplace([&] {
    call();
    through = true;
  });
  return !through;
}

}  // namespace

TEST(LocalTable, IdenticalSetIsInvisibleToEveryWatcher) {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  table->Set({"k", "v"});
  const std::shared_ptr<Varnix::Watcher> all = table->WatchAll();
  const std::shared_ptr<Varnix::Watcher> key = table->Watch("k");
  Drain(*all);
  Drain(*key);

  table->Set({"k", "v"});

  EXPECT_TRUE(all->GetChanges().empty());
  EXPECT_TRUE(key->GetChanges().empty());
}

TEST(LocalTable, IdenticalSetKeepsTheRowInItsPlace) {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  table->Set({"a", "1"});
  table->Set({"b", "2"});

  table->Set({"a", "1"});

  EXPECT_EQ(Contents(*table), (std::vector<Row>{{"a", "1"}, {"b", "2"}}));
}

TEST(LocalTable, SetLogsOneInsertAndThenUpdatesAlsoOfAnUnchangedValue) {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  const std::string name = "Table(" + AddressOf(table.get()) + ")";
  LogRecorder log;

  table->Set({"key", "four"});
  table->Set({"key", "four"});
  table->Set({"key", ""});

  EXPECT_EQ(log.Lines(), (std::vector<LogLine>{
                             {LogLevel::Debug, "tbl.set.ins", name + " inserting row for key (4 bytes)", ""},
                             {LogLevel::Debug, "tbl.set.upd", name + " updating row for key (4 bytes)", ""},
                             {LogLevel::Debug, "tbl.set.upd", name + " updating row for key (0 bytes)", ""},
                         }));
}

TEST(LocalTable, ChangedRowMovesBehindAllOthers) {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  table->Set({"a", "1"});
  table->Set({"b", "2"});
  table->Set({"c", "3"});

  table->Set({"a", "4"});

  EXPECT_EQ(Contents(*table), (std::vector<Row>{{"b", "2"}, {"c", "3"}, {"a", "4"}}));
}

TEST(LocalTable, ChangedRowThatIsLastStaysLast) {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  table->Set({"a", "1"});
  table->Set({"b", "2"});

  table->Set({"b", "3"});

  EXPECT_EQ(Contents(*table), (std::vector<Row>{{"a", "1"}, {"b", "3"}}));
}

TEST(LocalTable, EmptyKeyAndEmptyValueAreOrdinary) {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  const std::shared_ptr<Varnix::Watcher> key = table->Watch("");

  table->Set({"", ""});

  EXPECT_EQ(Drain(*key), (std::vector<Row>{{"", ""}}));
  EXPECT_EQ(Contents(*table), (std::vector<Row>{{"", ""}}));
}

TEST(LocalTable, ZeroBytesInKeysAndValuesCount) {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  const std::string key("k\0a", 3);
  const std::string other("k\0b", 3);
  const std::string value("v\0\0", 3);

  table->Set({key, value});
  table->Set({other, "v"});

  EXPECT_EQ(Contents(*table), (std::vector<Row>{{key, value}, {other, "v"}}));
}

TEST(LocalTable, KeysThatDifferBehindAZeroByteAreWatchedApart) {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  const std::shared_ptr<Varnix::Watcher> watcher = table->Watch(std::string("k\0a", 3));

  table->Set({std::string("k\0b", 3), "1"});
  EXPECT_TRUE(watcher->GetChanges().empty());
  table->Set({std::string("k\0a", 3), "2"});

  EXPECT_EQ(watcher->GetChanges(), (std::vector<Row>{{std::string("k\0a", 3), "2"}}));
}

TEST(LocalTable, ValuesThatDifferBehindAZeroByteAreDifferent) {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  table->Set({"k", std::string("v\0a", 3)});
  const std::shared_ptr<Varnix::Watcher> watcher = table->Watch("k");
  Drain(*watcher);

  table->Set({"k", std::string("v\0b", 3)});
  EXPECT_EQ(Drain(*watcher), (std::vector<Row>{{"k", std::string("v\0b", 3)}}));
  table->Set({"k", "v"});
  EXPECT_EQ(Drain(*watcher), (std::vector<Row>{{"k", "v"}}));
}

TEST(LocalTable, LogsAKeyUpToItsFirstZeroByteAndTheWholeLengthOfTheValue) {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  const std::string name = "Table(" + AddressOf(table.get()) + ")";
  const std::string key("k\0tail", 6);
  LogRecorder log;

  table->Set({key, std::string(7, '\0')});
  const std::shared_ptr<Varnix::Watcher> watcher = table->Watch(key);

  EXPECT_EQ(log.Lines(), (std::vector<LogLine>{
                             {LogLevel::Debug, "tbl.set.ins", name + " inserting row for k (7 bytes)", ""},
                             {LogLevel::Debug, "tbl.watch.key", name + " watching k (1 watchers total)", ""},
                         }));
}

TEST(LocalTable, HandsItsFormatsToTheHookUnexpanded) {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  LogRecorder log;

  table->Set({"k", "1"});
  table->Set({"k", "2"});
  table->Watch("k").reset();
  table->WatchAll().reset();

  EXPECT_THAT(log.Formats("tbl."), testing::ElementsAre("Table(%p) inserting row for %s (%zu bytes)",
                                                        "Table(%p) updating row for %s (%zu bytes)",
                                                        "Table(%p) watching %s (%zu watchers total)",
                                                        "Table(%p) watching all (%zu watchers total)"));
}

TEST(LocalTable, EveryOperationTakesTheTableLock) {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  std::shared_ptr<Varnix::Watcher> all = table->WatchAll();
  std::shared_ptr<Varnix::Watcher> key = table->Watch("k");
  std::shared_ptr<Varnix::WatcherSet> set = Varnix::MakeWatcherSet({all, key});
  const std::vector<std::function<void()>> operations{[&] {
                                                        table->Set({"k", "v"});
                                                      },
                                                      [&] { table->Watch("k").reset(); },
                                                      [&] { table->WatchAll().reset(); },
                                                      [&] { all->GetChanges(); },
                                                      [&] { key->GetChanges(); },
                                                      [&] { Varnix::MakeWatcherSet({all}).reset(); },
                                                      [&] { set->WaitUntil(std::chrono::steady_clock::time_point()); },
                                                      [&] {
                                                        table->Set({"k", "w"});
                                                      },
                                                      [&] { set->Wait(); },
                                                      [&] { set.reset(); },
                                                      [&] { all.reset(); },
                                                      [&] { key.reset(); }};
  for (std::size_t i = 0; i < operations.size(); ++i) EXPECT_TRUE(WaitsForTheTableLock(operations[i])) << i;
}

TEST(LocalTable, OneEffectiveAndOneIdenticalSetAreOneChange) {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  const std::shared_ptr<Varnix::Watcher> all = table->WatchAll();
  LogRecorder log;

  table->Set({"k", "v"});
  table->Set({"k", "v"});

  EXPECT_EQ(Drain(*all), (std::vector<Row>{{"k", "v"}}));
  EXPECT_EQ(log.Tags(), (std::vector<std::string>{"tbl.set.ins", "tbl.set.upd"}));
}

TEST(LocalTable, ValueThatBecomesMuchShorterGivesItsMemoryBack) {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  const Row before("k", std::string(100000, 'v'));
  const Row after("k", "v");
  table->Set(before);

  EXPECT_EQ(LeavesAllocated([&] { table->Set(after); }), -1);
}

TEST(LocalTable, NewRowIsKeptInItsPlaceWithOneKeyAndOneValue) {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  table->Set({"first", "makes the index"});
  const Row row(std::string(100, 'k'), std::string(100, 'v'));

  EXPECT_EQ(LeavesAllocated([&] { table->Set(row); }), 3);
}

TEST(LocalTable, KnownKeyGetsAValueThatFitsWithoutAllocating) {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  const std::shared_ptr<Varnix::WatcherSet> set = Varnix::MakeWatcherSet({table->Watch("k"), table->WatchAll()});
  const Row before("k", std::string(900, 'v'));
  const Row after("k", std::string(100, 'w'));
  table->Set(before);

  EXPECT_FALSE(RunsOutOfMemoryAt(1, [&] {
    table->Set(after);
    table->Set(before);
  }));
}

TEST(LocalTable, TakesItsOwnRowAsAnArgument) {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  table->Set({"a", "1"});
  table->Set({"b", "2"});

  for (const Row& row : Contents(*table)) table->Set(row);

  EXPECT_EQ(Contents(*table), (std::vector<Row>{{"a", "1"}, {"b", "2"}}));
}

TEST(LocalTable, KeepsEveryRowThatSeveralThreadsSet) {
  constexpr int kThreads = 4;
  constexpr int kRows = 500;
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&table, t] {
      for (int i = 0; i < kRows; ++i) table->Set({std::to_string(t * kRows + i), "v"});
    });
  }
  for (std::thread& thread : threads) thread.join();

  EXPECT_EQ(Contents(*table).size(), static_cast<std::size_t>(kThreads * kRows));
}

TEST(LocalTable, WatchingLogsTheNumberOfWatchersTheNewOneIncluded) {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  const std::string name = "Table(" + AddressOf(table.get()) + ")";
  LogRecorder log;

  const std::shared_ptr<Varnix::Watcher> key = table->Watch("mode");
  const std::shared_ptr<Varnix::Watcher> all = table->WatchAll();

  EXPECT_EQ(log.Lines(), (std::vector<LogLine>{
                             {LogLevel::Debug, "tbl.watch.key", name + " watching mode (1 watchers total)", ""},
                             {LogLevel::Debug, "tbl.watch.all", name + " watching all (2 watchers total)", ""},
                         }));
}

TEST(LocalTable, ForgetsAWatcherThatIsGone) {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  table->WatchAll().reset();
  table->Watch("k").reset();
  LogRecorder log;

  const std::shared_ptr<Varnix::Watcher> all = table->WatchAll();

  EXPECT_THAT(log.Lines().at(0).text, testing::EndsWith("watching all (1 watchers total)"));
}

TEST(LocalTable, CannotBeWatchedWithoutASharedOwner) {
  LocalTable unowned("t");

  EXPECT_THROW(unowned.Watch("k"), std::bad_weak_ptr);
  EXPECT_THROW(unowned.WatchAll(), std::bad_weak_ptr);
}

TEST(LocalTable, LivesAsLongAsItsWatchers) {
  std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("kept by its watcher");
  table->Set({"k", "v"});
  std::shared_ptr<Varnix::Watcher> watcher = table->WatchAll();

  table.reset();
  EXPECT_EQ(LocalTables("kept by its watcher").size(), 1U);
  EXPECT_EQ(Drain(*watcher), (std::vector<Row>{{"k", "v"}}));

  watcher.reset();
  EXPECT_EQ(LocalTables("kept by its watcher").size(), 0U);
}

TEST(MakeTable, MakesTwoTablesOfOneName) {
  const std::shared_ptr<Varnix::Table> first = Varnix::MakeTable("twice");
  const std::shared_ptr<Varnix::Table> second = Varnix::MakeTable("twice");

  first->Set({"k", "v"});

  EXPECT_NE(first, second);
  EXPECT_TRUE(Contents(*second).empty());
  EXPECT_THAT(LocalTables("twice"), testing::UnorderedElementsAre(first, second));
}

TEST(MakeTable, WaitsForTheTableLock) {
  EXPECT_TRUE(WaitsForTheTableLock([] { Varnix::MakeTable("t"); }));
}

TEST(MakeTable, LogsNothing) {
  LogRecorder log;

  Varnix::MakeTable("t").reset();

  EXPECT_TRUE(log.Lines().empty());
}

TEST(MakeTable, TakesAnyBytesAsAName) {
  const std::string name("a\0b", 3);

  const std::shared_ptr<Varnix::Table> named = Varnix::MakeTable(name);
  const std::shared_ptr<Varnix::Table> unnamed = Varnix::MakeTable("");

  EXPECT_EQ(LocalTables(name), (std::vector<std::shared_ptr<Varnix::Table>>{named}));
  EXPECT_THAT(LocalTables(""), testing::Contains(unnamed));
}

TEST(GetLocalTables, WaitsForTheTableLock) {
  EXPECT_TRUE(WaitsForTheTableLock([] { Varnix::GetLocalTables(); }));
}

TEST(GetLocalTables, LogsNothing) {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  LogRecorder log;

  Varnix::GetLocalTables();

  EXPECT_TRUE(log.Lines().empty());
}

TEST(GetLocalTables, LeavesNothingLockedWhenMemoryRunsOut) {
  const std::string name = "a name that does not fit into the string itself";
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable(name);
  for (long n = 1;; ++n) {
    const bool failed = RunsOutOfMemoryAt(n, [] { Varnix::GetLocalTables(); });

    EXPECT_EQ(LocalTables(name).size(), 1U);
    if (!failed) break;
    ASSERT_LT(n, 50);
  }

  EXPECT_EQ(table.use_count(), 1);
}

TEST(GetLocalTables, ForgetsATableThatIsGone) {
  std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("gone");
  ASSERT_EQ(LocalTables("gone"), (std::vector<std::shared_ptr<Varnix::Table>>{table}));

  table.reset();

  EXPECT_TRUE(LocalTables("gone").empty());
}

TEST(LocalTable, LeavesNothingBehindWhenItIsGone) {
  Varnix::MakeTable("the first makes the registry").reset();

  EXPECT_EQ(LeavesAllocated([] { Varnix::MakeTable("t").reset(); }), 0);
}

TEST(LocalTable, SetChangesNothingWhenTheLogHookThrows) {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  table->Set({"k", "old"});
  const std::shared_ptr<Varnix::Watcher> all = table->WatchAll();
  Drain(*all);
  {
    const ThrowingHook hook(1);
    EXPECT_THROW(table->Set({"k", "new"}), HookError);
  }
  {
    const ThrowingHook hook(1);
    EXPECT_THROW(table->Set({"other", "v"}), HookError);
  }

  EXPECT_TRUE(all->GetChanges().empty());
  EXPECT_EQ(Contents(*table), (std::vector<Row>{{"k", "old"}}));
}

TEST(LocalTable, SetChangesNothingWhenALockFailsAndWorksAfterwards) {
  SetLogHook([](LogLevel, const char*, const char*, va_list) {});
  for (long n : {1, 2}) {  // The table lock and the log lock.
    const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");

    EXPECT_TRUE(FailsToLockAt(n, [&] { table->Set({"k", "1"}); }));

    EXPECT_EQ(Contents(*table), std::vector<Row>());
    table->Set({"k", "2"});
    EXPECT_EQ(Contents(*table), (std::vector<Row>{{"k", "2"}}));
  }
  SetLogHook(DefaultLogger);
}

TEST(LocalTable, SetsWithoutAWordWhenAskedTo) {
  const std::shared_ptr<LocalTable> table = LocalTable::Make("t");
  const std::shared_ptr<Varnix::Watcher> all = table->WatchAll();
  LogRecorder log;

  table->SetUnlogged({"done", "n"});
  table->SetUnlogged({"done", "y"});

  EXPECT_TRUE(log.Lines().empty());
  EXPECT_EQ(Drain(*all), (std::vector<Row>{{"done", "y"}}));
}

TEST(LocalTable, WatchRegistersNothingWhenTheLogHookThrows) {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  {
    const ThrowingHook hook(1);
    EXPECT_THROW(table->Watch("k"), HookError);
  }
  {
    const ThrowingHook hook(1);
    EXPECT_THROW(table->WatchAll(), HookError);
  }

  LogRecorder log;
  const std::shared_ptr<Varnix::Watcher> watcher = table->Watch("k");
  EXPECT_THAT(log.Lines().at(0).text, testing::EndsWith("watching k (1 watchers total)"));
}

TEST(LocalTable, SetEitherHappensOrDoesNotWhenMemoryRunsOut) {
  const std::string key(100, 'k');
  const std::string value(1000, 'v');
  for (long n = 1;; ++n) {
    const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
    std::vector<Row> expected;
    for (const char* other : {"1", "2", "3", "4", "5"}) expected.emplace_back(other, "v");  // The index has to grow.
    for (const Row& row : expected) table->Set(row);
    table->Set({"old", "short"});
    const std::shared_ptr<Varnix::Watcher> all = table->WatchAll();
    const std::shared_ptr<Varnix::WatcherSet> set = Varnix::MakeWatcherSet({all});
    Drain(*all);
    const Row inserted(key, value);
    const Row updated("old", value);
    bool failed = false;
    for (const Row* row : {&inserted, &updated}) {
      const bool failed_here = RunsOutOfMemoryAt(n, [&] { table->Set(*row); });
      EXPECT_EQ(Drain(*all).empty(), failed_here);
      failed = failed || failed_here;
    }
    table->Set(inserted);
    table->Set(updated);

    std::vector<Row> rows = Contents(*table);
    std::sort(rows.begin(), rows.end());
    expected.insert(expected.end(), {inserted, updated});
    EXPECT_EQ(rows, expected);
    if (!failed) return;
    ASSERT_LT(n, 50);
  }
}

TEST(LocalTable, WatchingRegistersNothingWhenMemoryRunsOut) {
  const std::string key(100, 'k');
  for (long n = 1;; ++n) {
    const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
    bool failed = false;
    for (const bool all : {false, true}) {
      failed = RunsOutOfMemoryAt(n, [&] { all ? table->WatchAll() : table->Watch(key); }) || failed;
    }

    LogRecorder log;
    const std::shared_ptr<Varnix::Watcher> watcher = table->WatchAll();
    EXPECT_THAT(log.Lines().at(0).text, testing::EndsWith("watching all (1 watchers total)"));
    if (!failed) return;
    ASSERT_LT(n, 50);
  }
}

TEST(MakeTable, RegistersNothingWhenMemoryRunsOut) {
  for (long n = 1;; ++n) {
    std::shared_ptr<Varnix::Table> table;
    const bool failed =
        RunsOutOfMemoryAt(n, [&] { table = Varnix::MakeTable("a name that does not fit into the string itself"); });
    EXPECT_EQ(table == nullptr, failed);
    table.reset();

    EXPECT_TRUE(LocalTables("a name that does not fit into the string itself").empty());
    if (!failed) return;
    ASSERT_LT(n, 50);
  }
}
