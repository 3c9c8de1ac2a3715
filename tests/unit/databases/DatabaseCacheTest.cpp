#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "Tables.h"
#include "databases/DatabaseCache.h"
#include "support/LogRecorder.h"
#include "support/ThrowingHook.h"

namespace {

using Varnix::LogLevel;
using Rows = std::vector<Varnix::Row>;

bool IsListed(const std::string& database) {
  const Rows rows = Contents(*Varnix::GetDatabaseTable());
  return std::find(rows.begin(), rows.end(), Varnix::Row(database, "")) != rows.end();
}

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
  std::string group;
  std::string device;
  std::string process;

  EXPECT_FALSE(Varnix::GetSharingGroup("unshared", group, device, process, nullptr));
}

TEST(NetworkChanged, WithoutASharedDatabaseDoesNothing) {
  Varnix::GetTableTable("unshared");
  LogRecorder log;

  Varnix::NetworkChanged();

  EXPECT_TRUE(log.Lines().empty());
}
