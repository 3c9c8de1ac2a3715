#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Tables.h"
#include "databases/Database.h"
#include "support/LogRecorder.h"
#include "support/ThrowingHook.h"

namespace {

using Varnix::LogLevel;
using Rows = std::vector<Varnix::Row>;

SharingSettings Settings() { return {"database test", "dev", "proc", inet_addr("127.255.255.255")}; }

}  // namespace

TEST(Database, MakesItsTablesAndSaysSo) {
  LogRecorder log;

  Database database("d");

  ASSERT_EQ(LocalTables("_vrx_.comb.d").size(), 1U);
  ASSERT_EQ(LocalTables("_vrx_.tbltbl.d").size(), 1U);
  ASSERT_EQ(log.Lines().size(), 1U);
  EXPECT_EQ(log.Lines()[0].tag, "tblcmbn.ctor");
  EXPECT_EQ(log.Lines()[0].level, LogLevel::Debug);
  EXPECT_THAT(log.Lines()[0].text,
              testing::StartsWith("DB(" + AddressOf(&database) + ") constructed: d -> combined: " +
                                  AddressOf(LocalTables("_vrx_.comb.d")[0].get()) + " decombiner: 0x"));
}

TEST(Database, FeedsAllItsTablesIntoTheCombinedTable) {
  Database database("d");
  database.MakeTable("a")->Set({"k", "1"});
  database.MakeTable("bb")->Set({"k", "2"});

  EXPECT_EQ(Contents(*LocalTables("_vrx_.comb.d").at(0)), (Rows{{"\1ak", "1"}, {"\2bbk", "2"}}));
}

TEST(Database, IsNotSharedAtFirst) {
  Database database("d");
  SharingSettings settings{"as", "they", "were", 7};

  EXPECT_FALSE(database.GetSharing(settings));

  EXPECT_EQ(settings.group, "as");
  EXPECT_EQ(settings.broadcast_address, 7U);
}

TEST(Database, ReportsTheSettingsItIsSharedWith) {
  Database database("d");
  database.SetSharing(Settings());
  SharingSettings settings;

  EXPECT_TRUE(database.GetSharing(settings));

  EXPECT_EQ(settings.group, "database test");
  EXPECT_EQ(settings.device, "dev");
  EXPECT_EQ(settings.process, "proc");
  EXPECT_EQ(settings.broadcast_address, inet_addr("127.255.255.255"));
}

TEST(Database, LogsTheSettingsAndThenTheServer) {
  Database database("d");
  LogRecorder log;

  database.SetSharing(Settings());

  const LogLine first{LogLevel::Debug, "tblcmbn.sharing",
                      "DB(" + AddressOf(&database) + ") SetSharing group=\"database test\" dev=\"dev\" proc=\"proc\"",
                      ""};
  EXPECT_EQ(log.Lines().at(0), first);
  ASSERT_EQ(log.Lines("tblcmbn.sharing.svr").size(), 1U);
  const std::string server = log.Lines("tblsvr.ctor").at(0).text;
  EXPECT_THAT(server, testing::StartsWith("TableServer for dev::proc::d(0x"));
  const std::string address = server.substr(server.find('(') + 1, server.find(')') - server.find('(') - 1);
  EXPECT_EQ(log.Lines("tblcmbn.sharing.svr")[0].text,
            "DB(" + AddressOf(&database) + ") SetSharing -> server=" + address);
}

TEST(Database, StopsTheFirstServerBeforeItStartsTheSecondAlsoWithEqualSettings) {
  Database database("d");
  database.SetSharing(Settings());
  LogRecorder log;

  database.SetSharing(Settings());

  std::vector<std::string> tags;
  for (const std::string& tag : log.Tags()) {
    if (tag == "tblcmbn.sharing" || tag == "tbl.set.ins" || tag == "tblsvr.ctor" || tag == "tblcmbn.sharing.svr") {
      tags.push_back(tag);
    }
  }
  EXPECT_EQ(tags, (std::vector<std::string>{"tblcmbn.sharing", "tbl.set.ins", "tblsvr.ctor", "tblcmbn.sharing.svr"}));
  EXPECT_THAT(log.Lines("tbl.set.ins").at(0).text, testing::HasSubstr("inserting row for done (1 bytes)"));
}

TEST(Database, SaysThatItIsDestructedAndThenStopsItsServer) {
  LogRecorder log;
  std::string address;
  {
    Database database("d");
    address = AddressOf(&database);
    database.SetSharing(Settings());
    log.Clear();
  }

  const LogLine first{LogLevel::Debug, "tblcmbn.dtor", "DB(" + address + ") destructed", ""};
  EXPECT_EQ(log.Lines().at(0), first);
  EXPECT_EQ(log.Lines("tbl.set.ins").size(), 1U);  // The server's stop row.
}

TEST(Database, TellsItsServerThatTheNetworkHasChanged) {
  Database database("d");
  database.NetworkChanged();  // There is nobody to be told yet.
  database.SetSharing(Settings());
  LogRecorder log;

  database.NetworkChanged();

  EXPECT_TRUE(log.Eventually("tblsvr.dscv.chg"));
}

TEST(Database, SharesNoMoreOnceSharingHasEnded) {
  Database database("d");
  database.SetSharing(Settings());
  SharingSettings settings;

  database.EndSharing();
  EXPECT_FALSE(database.GetSharing(settings));

  database.SetSharing(Settings());
  EXPECT_FALSE(database.GetSharing(settings));
}

TEST(Database, IsInOrderAfterTheLogHookHasThrownAnywhereInSetSharing) {
  for (int n = 1;; ++n) {
    Database database("d");
    database.SetSharing(Settings());
    bool thrown = false;
    {
      // Counts the lines of this thread alone: what the hook throws on one of the library's own ends the process.
      const std::thread::id here = std::this_thread::get_id();
      int left = n;
      SetLogHook([&](LogLevel, const char*, const char*, va_list) {
        if (std::this_thread::get_id() == here && --left == 0) throw HookError();
      });
      try {
        database.SetSharing(Settings());
      } catch (const HookError&) {
        thrown = true;
      }
      SetLogHook(DefaultLogger);
    }

    database.SetSharing(Settings());

    SharingSettings settings;
    EXPECT_TRUE(database.GetSharing(settings));
    if (!thrown) {
      EXPECT_EQ(n, 5);  // Settings, stop row, constructor, server.
      return;
    }
  }
}
