// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "databases/Database.h"
#include "support/FailingAllocations.h"
#include "support/FailingLocks.h"
#include "support/LogRecorder.h"
#include "support/SleepingThread.h"
#include "support/Tables.h"
#include "support/ThrowingHook.h"

namespace {

using Varnix::LogLevel;
using Rows = std::vector<Varnix::Row>;

void ShareWhileHookThrowsAt(int n, Database& database, const SharingSettings& settings) {
  const ThrowingHook hook(n);
  database.SetSharing(settings);
}

SharingSettings Settings() { return {"database test", "dev", "proc", inet_addr("127.255.255.255")}; }

}  // namespace

TEST(Database, MakesItsTablesAndSaysSo) {
  LogRecorder log;

  Database database("d");

  ASSERT_EQ(LocalTables("_vrx_.comb.d").size(), 1U);
  ASSERT_EQ(LocalTables("_vrx_.tbltbl.d").size(), 1U);
  ASSERT_EQ(log.Lines().size(), 1U);
  database.MakeTable("t");
  const std::string created = log.Lines("tblcmbn.create").at(0).text;
  const std::string decombiner = created.substr(created.find('('), created.find(')') - created.find('(')).substr(1);
  EXPECT_EQ(log.Lines()[0].tag, "tblcmbn.ctor");
  EXPECT_EQ(log.Lines()[0].level, LogLevel::Debug);
  EXPECT_EQ(log.Lines()[0].text, "DB(" + AddressOf(&database) + ") constructed: d -> combined: " +
                                     AddressOf(LocalTables("_vrx_.comb.d")[0].get()) + " decombiner: " + decombiner);
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

TEST(Database, IsSharedInTheGroupWithoutANameLikeInAnyOther) {
  Database database("d");
  SharingSettings settings = Settings();
  settings.group.clear();
  database.SetSharing(settings);
  settings.group = "as before";

  EXPECT_TRUE(database.GetSharing(settings));

  EXPECT_EQ(settings.group, "");
}

TEST(Database, CanStopSharingAndShareAgain) {
  Database database("d");
  database.SetSharing(Settings());
  SharingSettings settings;

  database.StopSharing();
  EXPECT_FALSE(database.GetSharing(settings));
  database.StopSharing();
  database.NetworkChanged();
  EXPECT_FALSE(database.GetSharing(settings));

  database.SetSharing(Settings());
  EXPECT_TRUE(database.GetSharing(settings));
}

TEST(Database, LogsEachCallThatStopsSharingAlsoWhenItIsNotShared) {
  Database database("d");
  database.SetSharing(Settings());
  LogRecorder log;

  database.StopSharing();
  database.StopSharing();

  const LogLine stop{LogLevel::Debug, "tblcmbn.stop", "DB(" + AddressOf(&database) + ") StopSharing", ""};
  EXPECT_THAT(log.Lines("tblcmbn.stop"), testing::ElementsAre(stop, stop));
}

TEST(Database, HasStoppedSharingAlsoWhenTheHookThrows) {
  Database database("d");
  database.SetSharing(Settings());
  const std::thread::id here = std::this_thread::get_id();
  SetLogHook([here](LogLevel, const char* tag, const char*, va_list) {
    if (std::this_thread::get_id() == here && std::string(tag) != "tblcmbn.stop") throw HookError();
  });

  EXPECT_THROW(database.StopSharing(), HookError);

  SetLogHook(DefaultLogger);
  SharingSettings settings;
  EXPECT_FALSE(database.GetSharing(settings));
}

TEST(Database, StaysSharedWhenTheHookThrowsAtTheFirstLineOfStopSharing) {
  Database database("d");
  database.SetSharing(Settings());

  {
    const ThrowingHook hook(1);
    EXPECT_THROW(database.StopSharing(), HookError);
  }

  SharingSettings settings;
  EXPECT_TRUE(database.GetSharing(settings));
  EXPECT_EQ(settings.group, Settings().group);
  database.StopSharing();
  EXPECT_FALSE(database.GetSharing(settings));
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
  const LogLine last{LogLevel::Debug, "tblcmbn.sharing.svr",
                     "DB(" + AddressOf(&database) + ") SetSharing -> server=" + address, ""};
  EXPECT_EQ(log.Lines("tblcmbn.sharing.svr")[0], last);
}

TEST(Database, LogsNewSettingsWhileOthersMayAskForTheOldOnes) {
  Database database("d");
  database.SetSharing(Settings());
  SharingSettings reported;
  std::future<bool> asked;
  std::future_status status = std::future_status::deferred;
  SetLogHook([&](LogLevel, const char* tag, const char*, va_list) {
    if (std::string(tag) != "tblcmbn.sharing") return;
    asked = std::async(std::launch::async, [&] { return database.GetSharing(reported); });
    status = asked.wait_for(std::chrono::seconds(10));
  });

  database.SetSharing({"new", "dev2", "proc2", Settings().broadcast_address});

  SetLogHook(DefaultLogger);
  EXPECT_EQ(status, std::future_status::ready);
  EXPECT_TRUE(asked.get());
  EXPECT_EQ(reported.group, "database test");
}

TEST(Database, SaysWhetherItIsSharedOnlyOnceTheOldServerHasStopped) {
  for (const bool again : {true, false}) {
    Database database("d");
    database.SetSharing(Settings());
    std::optional<SleepingThread> asking;
    SharingSettings settings;
    bool shared = !again;
    std::atomic<bool> answered{false};
    bool answered_meanwhile = true;
    SetLogHook([&](LogLevel, const char* tag, const char*, va_list) {
      if (std::string(tag) != "tbl.set.ins") return;  // The stop row of the old server.
      asking.emplace([&] {
        shared = database.GetSharing(settings);
        answered = true;
      });
      answered_meanwhile = answered;
    });

    if (again) {
      database.SetSharing(Settings());
    } else {
      database.StopSharing();
    }
    asking.reset();

    SetLogHook(DefaultLogger);
    EXPECT_FALSE(answered_meanwhile);
    EXPECT_EQ(shared, again);
  }
}

TEST(Database, HandsItsFormatsToTheHookUnexpanded) {
  TableDecombiner decombiner("d");
  decombiner.GetTable("t");
  Varnix::MakeSharedTable("formats", "t");
  LogRecorder log;

  {
    Database database("d");
    database.MakeTable("t")->Set({"k", "v"});
    database.SetSharing(Settings());
    database.StopSharing();
  }
  decombiner.Set({"\1tk", "v"});
  Varnix::MakeSharedTable("formats", "t");

  EXPECT_THAT(log.Formats("tblcmbn."), testing::ElementsAre("DB(%p) constructed: %s -> combined: %p decombiner: %p",
                                                            "TableDecombiner(%p) created table %s -> %p",  //
                                                            "DB(%p) MakeTable %s -> %p",                   //
                                                            "TableCombiner(%p) setting %s:%s (%zu bytes)",
                                                            "DB(%p) SetSharing group=\"%s\" dev=\"%s\" proc=\"%s\"",
                                                            "DB(%p) SetSharing -> server=%p",                 //
                                                            "DB(%p) StopSharing",                             //
                                                            "DB(%p) destructed",                              //
                                                            "TableDecombiner(%p) setting %s:%s (%zu bytes)",  //
                                                            "DB(%p) MakeTable %s -> %p"));
  EXPECT_THAT(log.Formats("mkshrdtbl"), testing::ElementsAre("MakeSharedTable: %s:%s -> %p"));
}

TEST(Database, CutsTheDeviceInItsIdentityAloneAt255Bytes) {
  Database database("d");
  SharingSettings settings = Settings();
  settings.device = std::string(300, 'd');
  LogRecorder log;

  database.SetSharing(settings);

  EXPECT_THAT(log.Lines("tblsvr.ctor").at(0).text,
              testing::StartsWith("TableServer for " + std::string(255, 'd') + "::proc::d("));
  EXPECT_TRUE(database.GetSharing(settings));
  EXPECT_EQ(settings.device, std::string(300, 'd'));
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

  const LogLine destructed{LogLevel::Debug, "tblcmbn.dtor", "DB(" + address + ") destructed", ""};
  EXPECT_THAT(log.Lines("tblcmbn.dtor"), testing::ElementsAre(destructed));
  std::vector<std::string> tags;
  for (const std::string& tag : log.Tags()) {
    if (tag == "tblcmbn.dtor" || tag == "tbl.set.ins") tags.push_back(tag);
  }
  EXPECT_THAT(tags, testing::ElementsAre("tblcmbn.dtor", "tbl.set.ins"));  // The last is the server's stop row.
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
    try {
      ShareWhileHookThrowsAt(n, database, Settings());
    } catch (const HookError&) {
      thrown = true;
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

TEST(Database, KeepsItsSettingsWhenTheLogHookThrowsAtTheFirstLineOfSetSharing) {
  Database database("d");
  database.SetSharing(Settings());

  EXPECT_THROW(ShareWhileHookThrowsAt(1, database, {"new", "dev2", "proc2", Settings().broadcast_address}), HookError);

  SharingSettings settings;
  EXPECT_TRUE(database.GetSharing(settings));
  EXPECT_EQ(settings.group, "database test");
  EXPECT_EQ(settings.device, "dev");
  EXPECT_EQ(settings.process, "proc");
}

TEST(Database, KeepsItsSettingsWhenALockFailsBeforeTheOldServerIsStopped) {
  Database database("d");
  database.SetSharing(Settings());
  const SharingSettings later{"new", "dev2", "proc2", Settings().broadcast_address};
  SetLogHook([](LogLevel, const char*, const char*, va_list) {});
  for (long n : {1, 2}) {  // The log lock and that of the database.
    EXPECT_TRUE(FailsToLockAt(n, [&] { database.SetSharing(later); }));

    SharingSettings settings;
    EXPECT_TRUE(database.GetSharing(settings));
    EXPECT_EQ(settings.group, "database test");
  }
  SetLogHook(DefaultLogger);
}

TEST(Database, IsNotSharedWhenTheLogHookThrowsBeforeTheNewServerIsMade) {
  for (int n : {2, 3}) {  // The stop row of the old server, and the constructor of the new one.
    Database database("d");
    database.SetSharing(Settings());

    EXPECT_THROW(ShareWhileHookThrowsAt(n, database, Settings()), HookError);

    SharingSettings settings;
    EXPECT_FALSE(database.GetSharing(settings)) << n;
  }
}

TEST(Database, IsSharedAnewWhenTheLogHookThrowsAfterTheNewServerIsMade) {
  Database database("d");
  database.SetSharing(Settings());

  EXPECT_THROW(ShareWhileHookThrowsAt(4, database, {"new", "dev2", "proc2", Settings().broadcast_address}), HookError);

  SharingSettings settings;
  EXPECT_TRUE(database.GetSharing(settings));
  EXPECT_EQ(settings.group, "new");
  EXPECT_EQ(settings.device, "dev2");
  EXPECT_EQ(settings.process, "proc2");
}

TEST(Database, IsInOrderAfterTheLogHookHasThrownAnywhereInItsFirstSetSharing) {
  for (int n : {1, 2, 3}) {  // Settings, constructor, server.
    Database database("d");
    EXPECT_THROW(ShareWhileHookThrowsAt(n, database, Settings()), HookError);
    SharingSettings settings;
    EXPECT_EQ(database.GetSharing(settings), n == 3);

    database.SetSharing(Settings());

    EXPECT_TRUE(database.GetSharing(settings));
  }
}

TEST(Database, IsSharedOrNotWhereverMemoryRunsOutInSetSharingAndSharesAfterwards) {
  const std::string longer(100, 'n');
  const SharingSettings longer_settings{longer, longer, longer, Settings().broadcast_address};
  for (const bool again : {false, true}) {
    for (long n = 1;; ++n) {
      Database database("d");
      if (again) database.SetSharing(Settings());

      const bool failed = RunsOutOfMemoryAt(n, [&] { database.SetSharing(longer_settings); });

      SharingSettings settings;
      const bool shared = database.GetSharing(settings);
      if (failed) {
        EXPECT_TRUE(!shared || (again && settings.group == Settings().group)) << settings.group;
      } else {
        EXPECT_TRUE(shared);
      }
      database.SetSharing(longer_settings);
      EXPECT_TRUE(database.GetSharing(settings));
      EXPECT_EQ(settings.group, longer);
      if (!failed) break;
      ASSERT_LT(n, 100);
    }
  }
}

TEST(Database, MakesNoTableWhenTheLogHookThrowsInTheFirstMakeTableAndMakesItAfterwards) {
  for (int n : {1, 2, 3}) {  // The row in the table table, the new table, the combiner.
    Database database("d");
    {
      const ThrowingHook hook(n);
      EXPECT_THROW(database.MakeTable("t"), HookError);
    }
    EXPECT_EQ(LocalTables("_vrx_.out_t.d").size(), Contents(*database.GetTableTable()).size());

    database.MakeTable("t")->Set({"k", "v"});

    EXPECT_EQ(Contents(*database.GetTableTable()), (Rows{{"t", ""}}));
    EXPECT_EQ(Contents(*LocalTables("_vrx_.out_t.d").at(0)), (Rows{{"k", "v"}}));
  }
}

TEST(Database, EndsInOrderWhenTheLogHookThrowsAtAnyLineOfItsDestruction) {
  for (int n : {1, 2}) {  // The destruction itself and the server's stop row.
    auto database = std::make_unique<Database>("d");
    database->SetSharing(Settings());
    const ThrowingHook hook(n);

    database.reset();

    EXPECT_TRUE(hook.HasThrown());
    EXPECT_TRUE(LocalTables("_vrx_.comb.d").empty());
  }
}

TEST(Database, HasOneServerAtMostThoughThreadsShareItAndStopIt) {
  Database database("d");
  LogRecorder log;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&database, shares = i % 2 == 0] {
      for (int time = 0; time < 5; ++time) {
        SharingSettings settings;
        shares ? database.SetSharing(Settings()) : database.StopSharing();
        const bool shared = database.GetSharing(settings);
        EXPECT_EQ(settings.group, shared ? Settings().group : "");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  database.StopSharing();

  std::vector<std::string> tags;
  for (const std::string& tag : log.Tags()) {
    if (tag == "tbl.set.ins" || tag == "tblsvr.ctor" || tag == "tblcmbn.sharing.svr") tags.push_back(tag);
  }
  std::vector<std::string> expected;
  for (int i = 0; i < 10; ++i) {
    // Each server has its stop row.
    for (const char* tag : {"tblsvr.ctor", "tblcmbn.sharing.svr", "tbl.set.ins"}) expected.emplace_back(tag);
  }
  EXPECT_EQ(tags, expected);
  SharingSettings settings;
  EXPECT_FALSE(database.GetSharing(settings));
}

TEST(Database, KeepsZeroBytesInItsSettings) {
  Database database("d");
  const SharingSettings given{std::string("g\0g", 3), std::string("d\0d", 3), std::string("p\0p", 3),
                              Settings().broadcast_address};

  database.SetSharing(given);

  SharingSettings settings;
  ASSERT_TRUE(database.GetSharing(settings));
  EXPECT_EQ(settings.group, given.group);
  EXPECT_EQ(settings.device, given.device);
  EXPECT_EQ(settings.process, given.process);
}

TEST(Database, DropsItsTablesAfterItsServer) {
  auto database = std::make_unique<Database>("d");
  const auto held = database->MakeTable("held");
  database->SetSharing(Settings());
  ASSERT_EQ(LocalTables("_vrx_.ts_done.d").size(), 1U);

  database.reset();

  EXPECT_TRUE(LocalTables("_vrx_.ts_done.d").empty());
  EXPECT_TRUE(LocalTables("_vrx_.tbltbl.d").empty());
  EXPECT_EQ(LocalTables("_vrx_.comb.d").size(), 1U);  // The combiner that the application holds still feeds it.
  held->Set({"k", "v"});
}
