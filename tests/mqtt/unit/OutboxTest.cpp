// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gmock/gmock.h>
#include <poll.h>

#include <map>
#include <set>
#include <string>

#include "Outbox.h"
#include "OwnDatabase.h"

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Pair;

// The outbox of one database, which no other test has. Nothing is shared: what "the group" sets is set here.
class OutboxTest : public ::testing::Test {
 protected:
  OutboxTest() { outbox_.Restart(); }

  void Set(const std::string& table, const std::string& key, const std::string& value) const {
    Varnix::MakeSharedTable(options_.databases.front(), table)->Set({key, value});
  }

  // All that there is, in order.
  std::vector<std::pair<std::string, std::string>> TakeAll() {
    std::vector<std::pair<std::string, std::string>> rows;
    for (OutRow row; outbox_.Take(row);) rows.emplace_back(row.topic, row.value);
    return rows;
  }

  // The same of a drained outbox, where a row has been set: the thread of the alarm needs a moment to say so.
  std::vector<std::pair<std::string, std::string>> AwaitAll() {
    return IsReadable(60'000) ? TakeAll() : std::vector<std::pair<std::string, std::string>>();
  }

  bool IsReadable(int milliseconds) const {
    pollfd awaited{outbox_.Descriptor(), POLLIN, 0};
    return poll(&awaited, 1, milliseconds) == 1;
  }

  std::string Topic(const std::string& table_and_key) const {
    return "varnix/hall1/" + options_.databases.front() + "/" + table_and_key;
  }

  const Options options_ = OptionsOfOwnDatabase();
  const Topics topics_{"varnix"};
  const Log log_{Log::Level::Error};
  Outbox outbox_{options_, topics_, log_};
};

TEST_F(OutboxTest, GivesEachRowOfATableOnceInItsOrder) {
  Set("t", "a", "1");
  Set("t", "b", "2");
  Set("t", "a", "3");
  EXPECT_THAT(TakeAll(), ElementsAre(Pair(Topic("t/b"), "2"), Pair(Topic("t/a"), "3")));
  EXPECT_TRUE(outbox_.IsDrained());
  EXPECT_FALSE(IsReadable(0));
  Set("t", "b", "4");
  EXPECT_THAT(AwaitAll(), ElementsAre(Pair(Topic("t/b"), "4")));
}

TEST_F(OutboxTest, LearnsTablesAtAnyTime) {
  EXPECT_THAT(TakeAll(), ElementsAre());
  Set("first", "a", "1");
  EXPECT_THAT(AwaitAll(), ElementsAre(Pair(Topic("first/a"), "1")));
  std::map<std::string, std::string> expected;
  for (int i = 0; i < 100; ++i) {
    Set("t" + std::to_string(i), "key", std::to_string(i));
    expected[Topic("t" + std::to_string(i) + "/key")] = std::to_string(i);
  }
  const auto rows = AwaitAll();
  EXPECT_EQ((std::map<std::string, std::string>(rows.begin(), rows.end())), expected);
  EXPECT_EQ(rows.size(), expected.size());
}

TEST_F(OutboxTest, GivesEveryRowAgainAfterARestart) {
  Set("t", "a", "1");
  Set("t", "b", "2");
  TakeAll();
  outbox_.Restart();
  EXPECT_THAT(TakeAll(), ElementsAre(Pair(Topic("t/a"), "1"), Pair(Topic("t/b"), "2")));
}

TEST_F(OutboxTest, GivesNothingWhileItRests) {
  outbox_.Rest();
  Set("t", "a", "1");
  OutRow row;
  EXPECT_FALSE(outbox_.Take(row));
  outbox_.Restart();
  EXPECT_THAT(TakeAll(), ElementsAre(Pair(Topic("t/a"), "1")));
}

TEST_F(OutboxTest, KeepsATableThatTheAlarmHasTakenBeforeARest) {
  TakeAll();
  for (const std::string table : {"first", "second"}) {
    ASSERT_TRUE(outbox_.IsDrained());
    Set(table, "a", "1");
    ASSERT_TRUE(IsReadable(60'000));
    outbox_.Rest();
    outbox_.Restart();
    EXPECT_THAT(TakeAll(), Contains(Pair(Topic(table + "/a"), "1")));
  }
}

TEST_F(OutboxTest, LetsNoBusyTableKeepAnotherWaiting) {
  for (int i = 0; i < 2000; ++i) Set("busy", std::to_string(i), "0");
  for (int i = 0; i < 2000; ++i) Set("quiet", std::to_string(i), "0");
  std::set<std::string> quiet;
  OutRow row;
  for (int taken = 0; taken < 5000; ++taken) {
    Set("busy", std::to_string(taken % 2000), std::to_string(taken));  // It never becomes empty.
    ASSERT_TRUE(outbox_.Take(row));
    if (row.topic.find("quiet") != std::string::npos) quiet.insert(row.topic);
  }
  EXPECT_EQ(quiet.size(), 2000U);
}

TEST_F(OutboxTest, LearnsTablesOfEveryDatabaseThoughOneIsAlwaysBusy) {
  Options options = OptionsOfOwnDatabase();
  options.databases.push_back(OptionsOfOwnDatabase().databases.front());
  Outbox outbox(options, topics_, log_);
  outbox.Restart();
  int sets = 0;
  const auto set = [&](const std::string& table) {
    const Varnix::Row row("k", std::to_string(++sets));
    for (const std::string& database : options.databases) Varnix::MakeSharedTable(database, table)->Set(row);
  };
  std::set<std::string> learnt;
  OutRow row;
  for (int taken = 0; taken < 1000; ++taken) {
    set("early");  // None of the two ever becomes empty.
    if (taken == 300) set("late");
    ASSERT_TRUE(outbox.Take(row));
    learnt.insert(row.topic);
  }
  std::set<std::string> expected;
  for (const std::string& database : options.databases) {
    for (const std::string table : {"early", "late"}) expected.insert(topics_.Table("hall1", database, table) + "k");
  }
  EXPECT_EQ(learnt, expected);
}

TEST_F(OutboxTest, WalksToEveryRowWithAnEmptyValue) {
  for (int i = 0; i < 5000; ++i) Set("t" + std::to_string(i % 3), std::to_string(i), i % 100 == 0 ? "" : "full");
  TakeAll();
  outbox_.StartWalk();
  std::set<std::string> found;
  for (OutRow row; outbox_.IsWalking();) {
    if (!outbox_.TakeEmpty(row)) continue;
    EXPECT_EQ(row.value, "");
    EXPECT_TRUE(found.insert(row.topic).second);
  }
  EXPECT_EQ(found.size(), 50U);
}

TEST_F(OutboxTest, KnowsTheValueThatARowHasNow) {
  Set("a/b", "c d", "1");
  TakeAll();
  EXPECT_EQ(outbox_.ValueOf(Topic("a%2Fb/c%20d")), "1");
  EXPECT_EQ(outbox_.ValueOf(Topic("a%2Fb/other")), std::nullopt);
  EXPECT_EQ(outbox_.ValueOf(Topic("other/c%20d")), std::nullopt);
}

TEST_F(OutboxTest, PublishesNoTableOfTheNameThatBridgesUse) {
  Set("varnix-mqtt", "a", "1");
  Set("t", "a", "1");
  EXPECT_THAT(TakeAll(), ElementsAre(Pair(Topic("t/a"), "1")));
}

}  // namespace
