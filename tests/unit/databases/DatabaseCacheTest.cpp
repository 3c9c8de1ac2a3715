// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "databases/DatabaseCache.h"
#include "support/FailWith.h"
#include "support/FailingAllocations.h"
#include "support/FailingLocks.h"
#include "support/ForkedChild.h"
#include "support/LogRecorder.h"
#include "support/SleepingThread.h"
#include "support/SystemCallHooks.h"
#include "support/Tables.h"
#include "support/ThrowingHook.h"

namespace {

using Varnix::LogLevel;
using Rows = std::vector<Varnix::Row>;

bool IsListed(const std::string& database) {
  const Rows rows = Contents(*Varnix::GetDatabaseTable());
  return std::find(rows.begin(), rows.end(), Varnix::Row(database, "")) != rows.end();
}

// Each test has a database of its own in this process, and leaves no server running.
class SetSharingGroup : public testing::Test {
 protected:
  ~SetSharingGroup() override {
    if (const auto database = DatabaseCache::Instance()->FindDatabase(name_)) database->EndSharing();
  }

  // Group, device and process, or nothing.
  std::vector<std::string> Reported() const {
    std::vector<std::string> settings(3);
    const bool shared = Varnix::GetSharingGroup(name_, settings[0], settings[1], settings[2], nullptr);
    return shared ? settings : std::vector<std::string>();
  }

  unsigned ReportedAddress() const {
    std::string group;
    std::string device;
    std::string process;
    unsigned address = 0;
    Varnix::GetSharingGroup(name_, group, device, process, &address);
    return address;
  }

  // None is used twice: sharing that has ended has ended for good.
  const std::string name_ = std::string("shared by ") + testing::UnitTest::GetInstance()->current_test_info()->name();
};

}  // namespace

TEST(DatabaseCache, IsEmptyWhenItIsMade) {
  const DatabaseCache cache;

  EXPECT_EQ(Contents(*cache.GetDatabaseTable()), Rows());
}

TEST(DatabaseCache, ListsEachDatabaseOnce) {
  DatabaseCache cache;

  const auto first = cache.GetDatabase("a");
  const auto again = cache.GetDatabase("a");

  EXPECT_EQ(first, again);
  EXPECT_EQ(Contents(*cache.GetDatabaseTable()), (Rows{{"a", ""}}));
}

TEST(DatabaseCache, MakesNothingAndLogsNothingForAKnownName) {
  DatabaseCache cache;
  cache.GetDatabase("a");
  LogRecorder log;

  cache.GetDatabase("a");

  EXPECT_TRUE(log.Lines().empty());
}

TEST(DatabaseCache, TellsTheWatchersOfTheDatabaseTableOfANewDatabase) {
  DatabaseCache cache;
  const auto watcher = cache.GetDatabaseTable()->WatchAll();

  cache.GetDatabase("new");

  EXPECT_EQ(watcher->GetChanges(), (Rows{{"new", ""}}));
}

TEST(DatabaseCache, FindsOnlyWhatHasBeenMade) {
  DatabaseCache cache;
  EXPECT_EQ(cache.FindDatabase("a"), nullptr);

  const auto made = cache.GetDatabase("a");

  EXPECT_EQ(cache.FindDatabase("a"), made);
}

TEST(DatabaseCache, ListsWhatItHasMadeAfterTheLogHookHasThrownAnywhere) {
  for (int n = 1;; ++n) {
    DatabaseCache cache;
    bool thrown = false;
    {
      const ThrowingHook hook(n);
      try {
        cache.GetDatabase("a");
      } catch (const HookError&) {
        thrown = true;
        EXPECT_EQ(cache.FindDatabase("a"), nullptr);
      }
    }
    EXPECT_NO_THROW(cache.NetworkChanged());

    EXPECT_NE(cache.GetDatabase("a"), nullptr);

    EXPECT_EQ(Contents(*cache.GetDatabaseTable()), (Rows{{"a", ""}}));
    if (!thrown) return;
    ASSERT_LT(n, 10);
  }
}

TEST(DatabaseCache, SharesNoDatabaseOnceSharingHasEnded) {
  DatabaseCache cache;
  cache.EndSharing();

  const auto late = cache.GetDatabase("late");
  late->SetSharing({"group", "dev", "proc", 0xFFFFFF7F});

  SharingSettings settings;
  EXPECT_FALSE(late->GetSharing(settings));
}

TEST(DatabaseCache, MakesOneDatabaseForThreadsThatAllAskForIt) {
  DatabaseCache cache;
  LogRecorder log;
  std::vector<std::shared_ptr<Database>> databases(4);
  std::vector<std::thread> threads;
  for (auto& database : databases) threads.emplace_back([&] { database = cache.GetDatabase("a"); });
  for (std::thread& thread : threads) thread.join();

  EXPECT_THAT(databases, testing::Each(databases[0]));
  EXPECT_EQ(log.Lines("tblcmbn.ctor").size(), 1U);
  EXPECT_EQ(log.Lines("tbl.set.ins").size(), 1U);
}

TEST(DatabaseCache, LogsTheNewDatabaseAndThenListsIt) {
  DatabaseCache cache;
  LogRecorder log;

  const auto database = cache.GetDatabase("a");

  const auto combined = LocalTables("_vrx_.comb.a");
  ASSERT_EQ(combined.size(), 1U);
  ASSERT_EQ(log.Lines().size(), 2U);
  EXPECT_EQ(log.Lines()[0].level, LogLevel::Debug);
  EXPECT_EQ(log.Lines()[0].tag, "tblcmbn.ctor");
  EXPECT_EQ(log.Lines()[0].format, "DB(%p) constructed: %s -> combined: %p decombiner: %p");
  EXPECT_THAT(log.Lines()[0].text,
              testing::StartsWith("DB(" + AddressOf(database.get()) +
                                  ") constructed: a -> combined: " + AddressOf(combined[0].get()) + " decombiner: 0x"));
  EXPECT_EQ(log.Lines()[1],
            (LogLine{LogLevel::Debug, "tbl.set.ins",
                     "Table(" + AddressOf(cache.GetDatabaseTable().get()) + ") inserting row for a (0 bytes)", ""}));
}

TEST(DatabaseCache, FindsADatabaseThatIsBeingMadeOnlyWhenItIsWholeAndListed) {
  for (const std::string step : {"tblcmbn.ctor", "tbl.set.ins"}) {
    DatabaseCache cache;
    std::optional<SleepingThread> finder;
    std::shared_ptr<Database> found;
    std::atomic<bool> returned{false};
    bool returned_meanwhile = true;
    SetLogHook([&](LogLevel, const char* tag, const char*, va_list) {
      if (tag != step) return;
      finder.emplace([&] {
        found = cache.FindDatabase("new");
        returned = true;
      });
      returned_meanwhile = returned;
    });

    const auto made = cache.GetDatabase("new");
    finder.reset();

    SetLogHook(DefaultLogger);
    EXPECT_FALSE(returned_meanwhile) << step;
    EXPECT_EQ(found, made) << step;
  }
}

TEST(DatabaseCache, FindsADatabaseWhileAnotherStartsToShare) {
  DatabaseCache cache;
  const auto known = cache.GetDatabase("known");
  const auto sharing = cache.GetDatabase("sharing");
  std::future<std::shared_ptr<Database>> found;
  std::future_status status = std::future_status::deferred;
  SetLogHook([&](LogLevel, const char* tag, const char*, va_list) {
    if (std::string(tag) != "tblsvr.ctor") return;
    found = std::async(std::launch::async, [&] { return cache.FindDatabase("known"); });
    status = found.wait_for(std::chrono::seconds(10));
  });

  sharing->SetSharing({"group", "dev", "proc", inet_addr("127.255.255.255")});

  SetLogHook(DefaultLogger);
  EXPECT_EQ(status, std::future_status::ready);
  EXPECT_EQ(found.get(), known);
}

TEST(DatabaseCache, IsWholeAfterMemoryRanOutAnywhere) {
  const std::string name = "a name that does not fit into the string itself";
  for (long n = 1;; ++n) {
    DatabaseCache cache;
    const bool failed = RunsOutOfMemoryAt(n, [&] { cache.GetDatabase(name); });
    EXPECT_EQ(cache.FindDatabase(name) == nullptr, failed);
    EXPECT_NO_THROW(cache.NetworkChanged());

    EXPECT_NE(cache.GetDatabase(name), nullptr);

    EXPECT_EQ(Contents(*cache.GetDatabaseTable()), (Rows{{name, ""}}));
    if (!failed) return;
    ASSERT_LT(n, 100);
  }
}

TEST(DatabaseCache, IsTheSameForThreadsThatAllAskForItFirst) {
  std::vector<std::shared_ptr<DatabaseCache>> caches(4);
  std::vector<std::thread> threads;
  for (auto& cache : caches) threads.emplace_back([&] { cache = DatabaseCache::Instance(); });
  for (std::thread& thread : threads) thread.join();

  EXPECT_NE(caches[0], nullptr);
  EXPECT_THAT(caches, testing::Each(caches[0]));
}

TEST(GetDatabaseTableDeathTest, IsEmptyAtFirstAndHasOneRowAfterTwoCallsForOneDatabase) {
  const auto in_a_process_without_databases = [] {
    const bool absent = LocalTables("_vrx_.dbtbl.main").empty();
    const auto table = Varnix::GetDatabaseTable();
    const bool empty = Contents(*table).empty();
    const bool same = Varnix::GetTableTable("a") == Varnix::GetTableTable("a");
    const bool listed = Contents(*table) == Rows{{"a", ""}};
    std::fprintf(stderr, "absent %d, empty %d, same %d, listed %d", absent, empty, same, listed);
    std::_Exit(0);
  };

  EXPECT_EXIT(in_a_process_without_databases(), testing::ExitedWithCode(0), "^absent 1, empty 1, same 1, listed 1$");
}

#if !defined(VARNIX_EMULATED)  // Emulators abort where a forked child starts a thread, as sharing does.
TEST(DatabaseCacheDeathTest, SharesNothingOnceTheProcessExitsThoughAThreadMayHaveIt) {
  const auto exit_while_it_is_in_use = [] {
    static std::shared_ptr<DatabaseCache> kept;
    std::atexit([] {  // Later than what the library does at the exit.
      SharingSettings settings;
      std::fprintf(stderr, "shared %d", kept->GetDatabase("d")->GetSharing(settings));
    });
    kept = DatabaseCache::Instance();
    kept->GetDatabase("d")->SetSharing({"group", "dev", "proc", inet_addr("127.255.255.255")});
    std::exit(0);
  };

  EXPECT_EXIT(exit_while_it_is_in_use(), testing::ExitedWithCode(0), "^shared 0$");
}

TEST(DatabaseCacheDeathTest, ThatIsMadeWhileTheProcessExitsSharesNothing) {
  const auto exit_and_share = [] {
    std::atexit([] {
      const auto database = DatabaseCache::Instance()->GetDatabase("d");
      database->SetSharing({"group", "dev", "proc", inet_addr("127.255.255.255")});
      SharingSettings settings;
      std::fprintf(stderr, "shared %d", database->GetSharing(settings));
    });
    DatabaseCache::Instance();
    std::exit(0);
  };

  EXPECT_EXIT(exit_and_share(), testing::ExitedWithCode(0), "^shared 0$");
}
#endif

TEST(GetDatabaseTable, IsOneTableNamedAsTheLibrarysOwn) {
  EXPECT_EQ(Varnix::GetDatabaseTable(), Varnix::GetDatabaseTable());
  EXPECT_THAT(LocalTables("_vrx_.dbtbl.main"), testing::Contains(Varnix::GetDatabaseTable()));
}

TEST(GetTableTable, MakesTheDatabaseOnceAndIsTheSameTableEachTime) {
  EXPECT_FALSE(IsListed("a table table's"));

  const auto table = Varnix::GetTableTable("a table table's");

  EXPECT_EQ(table, Varnix::GetTableTable("a table table's"));
  EXPECT_TRUE(IsListed("a table table's"));
}

TEST(GetTableTable, TakesADatabaseNameWithDotsAndTheEmptyOneAsTheyAre) {
  Varnix::GetTableTable("x.y");
  Varnix::GetTableTable("");

  for (const char* name : {"_vrx_.comb.x.y", "_vrx_.tbltbl.x.y", "_vrx_.comb.", "_vrx_.tbltbl."}) {
    EXPECT_EQ(LocalTables(name).size(), 1U) << name;
  }
}

TEST(MakeSharedTable, GivesTwoHandlesOfOneTable) {
  const auto one = Varnix::MakeSharedTable("handles", "t");
  const auto other = Varnix::MakeSharedTable("handles", "t");
  const auto watcher = other->WatchAll();

  one->Set({"k", "v"});

  EXPECT_NE(one, other);
  EXPECT_EQ(watcher->GetChanges(), (Rows{{"k", "v"}}));
}

TEST(MakeSharedTable, ListsTheTableInTheTableTable) {
  Varnix::MakeSharedTable("listing", "t");

  EXPECT_EQ(Contents(*Varnix::GetTableTable("listing")), (Rows{{"t", ""}}));
  EXPECT_EQ(LocalTables("_vrx_.out_t.listing").size(), 1U);
}

TEST(MakeSharedTable, LogsWhatItHasMade) {
  const auto database = DatabaseCache::Instance()->GetDatabase("logging");
  Varnix::MakeSharedTable("logging", "t");
  LogRecorder log;

  const auto table = Varnix::MakeSharedTable("logging", "t");

  EXPECT_EQ(log.Lines(),
            (std::vector<LogLine>{
                {LogLevel::Debug, "tblcmbn.make",
                 "DB(" + AddressOf(database.get()) + ") MakeTable t -> " + AddressOf(table.get()), ""},
                {LogLevel::Debug, "mkshrdtbl", "MakeSharedTable: logging:t -> " + AddressOf(table.get()), ""},
            }));
}

TEST(GetSharingGroup, OfADatabaseThatWasNeverNamedIsFalseAndMakesNone) {
  std::string group = "g";
  std::string device = "d";
  std::string process = "p";
  unsigned address = 7;

  EXPECT_FALSE(Varnix::GetSharingGroup("never named", group, device, process, &address));

  EXPECT_EQ(group + device + process, "gdp");
  EXPECT_EQ(address, 7U);
  EXPECT_FALSE(IsListed("never named"));
}

TEST(GetSharingGroup, BeforeSharingIsFalse) {
  Varnix::MakeSharedTable("unshared", "t");
  std::string group = "group";
  std::string device = "device";
  std::string process = "process";
  unsigned address = 7;

  EXPECT_FALSE(Varnix::GetSharingGroup("unshared", group, device, process, &address));

  EXPECT_EQ(std::tie(group, device, process, address), std::make_tuple("group", "device", "process", 7U));
}

TEST(StopSharing, OfADatabaseThatWasNeverNamedMakesNoneAndLogsNothing) {
  const Rows before = Contents(*Varnix::GetDatabaseTable());
  LogRecorder log;

  Varnix::StopSharing("never named");

  EXPECT_TRUE(log.Lines().empty());
  EXPECT_EQ(Contents(*Varnix::GetDatabaseTable()), before);
}

#if !defined(VARNIX_EMULATED)  // An emulator need not stand a fork by another thread than the first.
TEST(DatabaseCache, LeavesNoLockToAForkedChildThatAThreadTakesMeanwhile) {
  const auto database = DatabaseCache::Instance()->GetDatabase("forked");
  std::promise<void> let_go;
  std::promise<void> forked;
  SetLogHook([go = let_go.get_future().share()](LogLevel, const char* tag, const char*, va_list) {
    if (std::string(tag) == "hold") go.wait();
  });
  bool made = false;
  {
    const SleepingThread holder([&] {
      Log(LogLevel::Debug, "hold", "the fork, which waits for the log lock");
      forked.get_future().wait();  // The thread sanitizer wants a child to join the threads that had ended.
    });
    const SleepingThread forker([&] {
      made = HoldsInForkedChild([&] { return database->MakeTable("of the child") != nullptr; });
      forked.set_value();
    });
    const SleepingThread maker([&] { database->MakeTable("of the parent"); });
    let_go.set_value();
  }

  SetLogHook(DefaultLogger);
  EXPECT_TRUE(made);
}
#endif

TEST(NetworkChanged, WithoutASharedDatabaseDoesNothing) {
  Varnix::GetTableTable("unshared");
  LogRecorder log;

  Varnix::NetworkChanged();

  EXPECT_TRUE(log.Lines().empty());
}

TEST(NetworkChanged, MakesNoDatabase) {
  const Rows before = Contents(*Varnix::GetDatabaseTable());

  Varnix::NetworkChanged();

  EXPECT_EQ(Contents(*Varnix::GetDatabaseTable()), before);
}

TEST(NetworkChanged, ReachesEverySharedDatabaseAndNoOther) {
  DatabaseCache cache;
  cache.GetDatabase("unshared");
  for (const char* name : {"one", "two"}) {
    cache.GetDatabase(name)->SetSharing({"group", "dev", "proc", inet_addr("127.255.255.255")});
  }
  LogRecorder log;

  cache.NetworkChanged();

  EXPECT_TRUE(log.Eventually("tblsvr.dscv.chg", 2));
  std::vector<std::string> told;
  for (const LogLine& line : log.Lines("tblsvr.dscv.chg")) told.push_back(line.text.substr(0, line.text.find("(0x")));
  EXPECT_THAT(told, testing::UnorderedElementsAre("TableServer for dev::proc::one", "TableServer for dev::proc::two"));
}

TEST(NetworkChanged, ReachesTheOthersWhenOneDatabaseCannotBeTold) {
  DatabaseCache cache;
  for (const char* name : {"one", "two"}) {
    cache.GetDatabase(name)->SetSharing({"group", "dev", "proc", inet_addr("127.255.255.255")});
  }
  LogRecorder log;
  {
    const Hooked write(Hooks().write, FailOnce(Hooks().write, EAGAIN));
    cache.NetworkChanged();
  }

  EXPECT_EQ(log.Lines("tblsvr.nwc").size(), 1U);
  EXPECT_TRUE(log.Eventually("tblsvr.dscv.chg"));
}

TEST(MakeSharedTable, FeedsTheSameCombinedTableThroughAllItsHandles) {
  Varnix::MakeSharedTable("feeding", "t")->Set({"a", "1"});
  Varnix::MakeSharedTable("feeding", "t")->Set({"b", "2"});

  EXPECT_EQ(Contents(*LocalTables("_vrx_.comb.feeding").at(0)), (Rows{{"\1ta", "1"}, {"\1tb", "2"}}));
}

TEST(MakeSharedTable, KeepsTablesOfOneNameInTwoDatabasesApart) {
  const auto here = Varnix::MakeSharedTable("here", "t");
  const auto there = Varnix::MakeSharedTable("there", "t");

  here->Set({"k", "v"});

  EXPECT_EQ(Contents(*here), (Rows{{"k", "v"}}));
  EXPECT_EQ(Contents(*there), Rows());
}

TEST(MakeSharedTable, NamesTheLocalCopyOfATableWithoutAName) {
  Varnix::MakeSharedTable("nameless", "");

  EXPECT_EQ(LocalTables("_vrx_.out_.nameless").size(), 1U);
  EXPECT_EQ(Contents(*Varnix::GetTableTable("nameless")), (Rows{{"", ""}}));
}

TEST(MakeSharedTable, WorksAfterTheLogHookHasThrownAnywhere) {
  for (int n = 1;; ++n) {
    const std::string name = "throwing " + std::to_string(n);
    bool thrown = false;
    {
      const ThrowingHook hook(n);
      try {
        Varnix::MakeSharedTable(name, "t");
      } catch (const HookError&) {
        thrown = true;
      }
    }

    const auto table = Varnix::MakeSharedTable(name, "t");
    table->Set({"k", "v"});

    EXPECT_EQ(Contents(*table), (Rows{{"k", "v"}}));
    EXPECT_TRUE(IsListed(name));
    EXPECT_EQ(Contents(*Varnix::GetTableTable(name)), (Rows{{"t", ""}}));
    EXPECT_EQ(LocalTables("_vrx_.comb." + name).size(), 1U);
    EXPECT_EQ(LocalTables("_vrx_.out_t." + name).size(), 1U);
    if (!thrown) {
      EXPECT_EQ(n, 7);  // Database, its row, the table's row, the table, the combiner, the call.
      return;
    }
  }
}

TEST(MakeSharedTable, WorksAfterALockHasFailedAnywhere) {
  SetLogHook([](LogLevel, const char*, const char*, va_list) {});
  bool failed = true;
  for (long n = 1; failed; ++n) {
    const std::string name = "not locked " + std::to_string(n);
    failed = FailsToLockAt(n, [&] { Varnix::MakeSharedTable(name, "t"); });
    EXPECT_TRUE(failed || n > 2);

    const auto table = Varnix::MakeSharedTable(name, "t");
    table->Set({"k", "v"});

    EXPECT_EQ(Contents(*table), (Rows{{"k", "v"}}));
    EXPECT_TRUE(IsListed(name));
    EXPECT_EQ(Contents(*Varnix::GetTableTable(name)), (Rows{{"t", ""}}));
  }
  SetLogHook(DefaultLogger);
}

TEST(GetTableTable, WorksAfterTheLogHookHasThrownAnywhere) {
  for (int n : {1, 2}) {  // The database and its row.
    const std::string name = "throwing table table " + std::to_string(n);
    {
      const ThrowingHook hook(n);
      EXPECT_THROW(Varnix::GetTableTable(name), HookError);
    }
    EXPECT_FALSE(IsListed(name));

    EXPECT_EQ(Contents(*Varnix::GetTableTable(name)), Rows());

    EXPECT_TRUE(IsListed(name));
    EXPECT_EQ(LocalTables("_vrx_.tbltbl." + name).size(), 1U);
  }
}

TEST(GetTableTable, ListsTheTablesOfItsDatabaseToItsWatchers) {
  const auto watcher = Varnix::GetTableTable("watched listing")->WatchAll();

  Varnix::MakeSharedTable("watched listing", "one");
  Varnix::MakeSharedTable("watched listing", "one");
  Varnix::MakeSharedTable("watched listing", "two");

  EXPECT_EQ(watcher->GetChanges(), (Rows{{"one", ""}}));
  EXPECT_EQ(watcher->GetChanges(), (Rows{{"two", ""}}));
  EXPECT_EQ(watcher->GetChanges(), Rows());
}

TEST_F(SetSharingGroup, MakesTheDatabaseAndIsReportedByGetSharingGroup) {
  EXPECT_FALSE(IsListed(name_));

  Varnix::SetSharingGroup(name_, "g", "dev", "p", inet_addr("127.255.255.255"));

  EXPECT_TRUE(IsListed(name_));
  EXPECT_EQ(Reported(), (std::vector<std::string>{"g", "dev", "p"}));
  EXPECT_EQ(ReportedAddress(), inet_addr("127.255.255.255"));
}

TEST_F(SetSharingGroup, IsReportedWithoutTheAddressToThoseWhoDoNotAskForIt) {
  Varnix::SetSharingGroup(name_, "g", "dev", "p", inet_addr("127.255.255.255"));
  std::string group;
  std::string device;
  std::string process;

  EXPECT_TRUE(Varnix::GetSharingGroup(name_, group, device, process, nullptr));

  EXPECT_EQ(group, "g");
}

TEST_F(SetSharingGroup, IsReportedWholeOrNotAtAllWhenMemoryRunsOut) {
  const std::string longer(100, 'n');
  Varnix::SetSharingGroup(name_, longer, longer, longer, inet_addr("127.255.255.255"));
  for (long n = 1;; ++n) {
    std::string group = "as";
    std::string device = "they";
    std::string process = "were";
    unsigned address = 7;

    const bool failed = RunsOutOfMemoryAt(n, [&] { Varnix::GetSharingGroup(name_, group, device, process, &address); });

    const std::vector<std::string> before{"as", "they", "were"};
    const std::vector<std::string> all{longer, longer, longer};
    EXPECT_EQ((std::vector<std::string>{group, device, process}), failed ? before : all);
    EXPECT_EQ(address == 7, failed);
    if (!failed) return;
    ASSERT_LT(n, 20);
  }
}

TEST_F(SetSharingGroup, HoldsUpOnlyWhoAsksForTheDatabaseUntilTheNetworkChanges) {
  std::promise<void> sharing_starts;
  std::promise<void> sharing_goes_on;
  const Hooked listen(Hooks().listen, [&](int descriptor, int backlog) {
    sharing_starts.set_value();
    sharing_goes_on.get_future().wait();
    return Hooks().listen.Real(descriptor, backlog);
  });
  std::thread sharer([&] { Varnix::SetSharingGroup(name_, "g", "dev", "p", inet_addr("127.255.255.255")); });
  sharing_starts.get_future().wait();
  std::vector<std::string> reported;
  std::atomic<bool> asked{false};
  std::atomic<bool> changed{false};
  std::atomic<bool> named{false};
  {
    const SleepingThread asking([&] {
      reported = Reported();
      asked = true;
    });
    const auto others = std::async(std::launch::async, [&] {
      Varnix::GetTableTable("other than " + name_);
      Varnix::MakeSharedTable(name_, "t");
    });
    EXPECT_EQ(others.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    const SleepingThread changing([&] {
      Varnix::NetworkChanged();
      changed = true;
    });
    const SleepingThread naming([&] {
      Varnix::GetTableTable(name_);
      named = true;
    });
    EXPECT_FALSE(asked || changed || named);

    sharing_goes_on.set_value();
  }
  sharer.join();

  EXPECT_EQ(reported, (std::vector<std::string>{"g", "dev", "p"}));
}

TEST_F(SetSharingGroup, CalledAgainReplacesAllSettings) {
  Varnix::SetSharingGroup(name_, "g", "dev", "p", inet_addr("127.255.255.255"));

  Varnix::SetSharingGroup(name_, "g2", "dev2", "p2", inet_addr("127.0.0.1"));

  EXPECT_EQ(Reported(), (std::vector<std::string>{"g2", "dev2", "p2"}));
  std::string group, device, process;
  unsigned address = 0;
  EXPECT_TRUE(Varnix::GetSharingGroup(name_, group, device, process, &address));
  EXPECT_EQ(address, inet_addr("127.0.0.1"));
}

TEST_F(SetSharingGroup, ChangesNothingWhenTheLogHookThrowsAtItsFirstLine) {
  Varnix::SetSharingGroup(name_, "g", "dev", "p", inet_addr("127.255.255.255"));
  std::vector<std::string> lines;
  const std::thread::id here = std::this_thread::get_id();
  SetLogHook([&](LogLevel, const char* tag, const char*, va_list) {
    if (std::this_thread::get_id() != here) return;  // The server's own lines.
    lines.emplace_back(tag);
    throw HookError();
  });

  EXPECT_THROW(Varnix::SetSharingGroup(name_, "g2", "dev2", "p2", inet_addr("127.0.0.1")), HookError);

  const LogRecorder log;
  EXPECT_EQ(lines, (std::vector<std::string>{"tblcmbn.sharing"}));
  EXPECT_EQ(Reported(), (std::vector<std::string>{"g", "dev", "p"}));
  EXPECT_EQ(ReportedAddress(), inet_addr("127.255.255.255"));
  Varnix::NetworkChanged();
  EXPECT_TRUE(log.Eventually("tblsvr.dscv.chg"));  // The server goes on.
}

TEST_F(SetSharingGroup, StartsNothingWhenTheLogHookThrowsAtTheFirstLineOfItsFirstCall) {
  Varnix::GetTableTable(name_);
  {
    const ThrowingHook hook(1);
    EXPECT_THROW(Varnix::SetSharingGroup(name_, "g", "dev", "p", inet_addr("127.255.255.255")), HookError);
  }

  EXPECT_EQ(Reported(), std::vector<std::string>());
  EXPECT_TRUE(LocalTables("_vrx_.ts_done." + name_).empty());  // Each server has one.
}

TEST_F(SetSharingGroup, LetsNetworkChangedReachTheServer) {
  Varnix::SetSharingGroup(name_, "g", "dev", "p", inet_addr("127.255.255.255"));
  LogRecorder log;

  Varnix::NetworkChanged();

  EXPECT_TRUE(log.Eventually("tblsvr.dscv.chg"));
}

TEST_F(SetSharingGroup, LeavesTheContentsOfItsTablesAlone) {
  const auto table = Varnix::MakeSharedTable(name_, "t");
  table->Set({"before", "v"});

  Varnix::SetSharingGroup(name_, "g", "dev", "p", inet_addr("127.255.255.255"));
  table->Set({"while", "v"});
  Varnix::SetSharingGroup(name_, "g", "dev", "p", inet_addr("127.255.255.255"));

  EXPECT_EQ(Contents(*table), (Rows{{"before", "v"}, {"while", "v"}}));
}

TEST_F(SetSharingGroup, StoresTheLimitedBroadcastAddressForZero) {
  // Nothing may go out to a real network.
  std::promise<in_addr_t> announced_to;
  std::atomic<bool> announced{false};
  const Hooked sendto(Hooks().sendto, [&](int, const void*, std::size_t size, int, const sockaddr* place, socklen_t) {
    if (!announced.exchange(true)) announced_to.set_value(reinterpret_cast<const sockaddr_in*>(place)->sin_addr.s_addr);
    return static_cast<ssize_t>(size);
  });

  Varnix::SetSharingGroup(name_, "g", "dev", "p", 0);

  EXPECT_EQ(Reported(), (std::vector<std::string>{"g", "dev", "p"}));
  EXPECT_EQ(ReportedAddress(), 4294967295U);
  std::future<in_addr_t> address = announced_to.get_future();
  ASSERT_EQ(address.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(address.get(), INADDR_BROADCAST);
  DatabaseCache::Instance()->FindDatabase(name_)->EndSharing();
}
