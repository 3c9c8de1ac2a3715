// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// What readers are told.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "text/Printable.h"
#include "web/EventFeed.h"
#include "web/MembersFeed.h"
#include "web/MetricsFeed.h"
#include "web/RowsFeed.h"
#include "web/WebModel.h"

namespace {

Member PressAt(std::uint16_t port) {
  Member member;
  member.place = {0x7F000001, port};
  member.device = "press";
  member.process = "ctl";
  return member;
}

std::size_t Count(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

// The names of the events; for each row the value.
std::vector<std::string> Told(const std::string& text) {
  std::vector<std::string> told;
  std::size_t begin = 0;
  for (std::size_t end = text.find('\n'); end != std::string::npos; begin = end + 1, end = text.find('\n', begin)) {
    const std::string line = text.substr(begin, end - begin);
    const std::size_t value = line.find("\"value\":\"");
    if (line.rfind("event: ", 0) == 0 && line != "event: rows") told.push_back(line.substr(7));
    if (value != std::string::npos) told.push_back(line.substr(value + 9, line.find('"', value + 9) - value - 9));
  }
  return told;
}

std::string Fill(Feed& feed) {
  std::string out;
  feed.Fill(out);
  return out;
}

std::string FillAll(Feed& feed) {
  std::string out;
  while (feed.HasMore()) feed.Fill(out);
  return out;
}

struct Pieces {
  std::string text;
  std::size_t longest = 0;
};

Pieces FillPieces(Feed& feed) {
  Pieces pieces;
  while (feed.HasMore()) {
    const std::string piece = Fill(feed);
    pieces.longest = std::max(pieces.longest, piece.size());
    pieces.text += piece;
  }
  return pieces;
}

constexpr std::size_t kLongName = 4096;

using Texts = std::vector<std::string>;

class FeedsTest : public testing::Test {
 protected:
  FeedsTest() { model_.AddMember(press_, 7); }

  void Set(const std::string& key, const std::string& value, const char* table = "status") {
    model_.SetRow(press_, {table, key, value, 1});
  }
  void SetMany(const std::string& value, int count) {
    for (int i = 0; i < count; ++i) Set("key-" + std::to_string(i), value);
  }
  // Tells 3,000 rows to a slow reader, from one beginning to its end, whoever comes and leaves between two pieces.
  void ExpectAnEndWhileSoManyLeaveAtATime(int count) {
    EventFeed feed(model_, "{}\n");
    std::string text;
    for (int pieces = 0; pieces < 30 && Count(text, "event: ready") == 0; ++pieces) {
      text += Fill(feed);
      ComeAndGo(count);
    }

    EXPECT_EQ(Count(text, "event: ready"), 1U);
    EXPECT_EQ(Count(text, "event: hello"), 1U);
    EXPECT_EQ(Count(text, "\"value\":\"1\""), 3000U);
  }
  // So many others.
  void ComeAndGo(int count) {
    for (int i = 0; i < count; ++i) {
      model_.AddMember(PressAt(2), 8);
      model_.RemoveMember(PressAt(2).place, {}, 9);
    }
  }

  void AddManyWithLongNames() {
    for (std::uint16_t port = 2; port <= 100; ++port) {
      Member member = PressAt(port);
      member.process = std::string(kLongName, '\x01');
      model_.AddMember(member, 8);
    }
  }

  const Member press_ = PressAt(1);
  WebModel model_;
};

TEST_F(FeedsTest, EventsBeginWithWhatThereIs) {
  Set("speed", "1");
  EventFeed feed(model_, "{}\n");

  EXPECT_EQ(Told(FillAll(feed)), (Texts{"time", "hello", "member", "1", "ready"}));
  EXPECT_FALSE(feed.HasMore());
}

TEST_F(FeedsTest, EventsGoOnWithWhatChanges) {
  EventFeed feed(model_, "{}\n");
  FillAll(feed);
  Set("speed", "1");
  Set("speed", "2");
  Set("mode", "auto");

  EXPECT_EQ(Told(FillAll(feed)), (Texts{"2", "auto"}));
}

TEST_F(FeedsTest, TheTimeIsASignOfLifeOnceAllThatThereWasIsTold) {
  SetMany("1", 2000);
  EventFeed feed(model_, "{}\n");
  EXPECT_EQ(feed.SignOfLife(), "");
  Fill(feed);
  EXPECT_EQ(feed.SignOfLife(), "");

  FillAll(feed);

  EXPECT_EQ(Told(feed.SignOfLife()), Texts{"time"});
}

TEST_F(FeedsTest, RowsThatFollowEachOtherAreOneEvent) {
  SetMany("1", 3);
  EventFeed feed(model_, "{}\n");

  const std::string text = FillAll(feed);

  EXPECT_EQ(Count(text, "event: rows\ndata: {"), 1U);
  EXPECT_EQ(Count(text, "}\ndata: {"), 2U);
  EXPECT_EQ(Count(text, "}\n\n"), 5U);
}

TEST_F(FeedsTest, OneThatIsSlowIsToldTheNewestValuesOnce) {
  SetMany("old", 2000);
  EventFeed feed(model_, "{}\n");
  const Texts first = Told(Fill(feed));
  ASSERT_LT(first.size(), 1000U);
  for (int round = 0; round < 10; ++round) SetMany("new", 2000);

  const Texts rest = Told(FillAll(feed));

  EXPECT_EQ(rest.size(), 2001U);
  EXPECT_EQ(rest.front(), "ready");  // All that there was has changed, and is told as a change.
  EXPECT_EQ(rest.back(), "new");
}

TEST_F(FeedsTest, OneThatNeverCatchesUpIsToldTheFastestRowsToo) {
  SetMany("cold", 2000);
  Set("hot", "hot");
  EventFeed feed(model_, "{}\n");
  FillAll(feed);
  std::string text;
  for (int piece = 0; piece < 60; ++piece) {
    for (int i = 0; i < 1000; ++i) Set("key-" + std::to_string((piece * 1000 + i) % 2000), "cold");  // Two pieces.
    Set("hot", "hot");
    text += Fill(feed);
  }

  EXPECT_GE(Count(text, "\"value\":\"hot\""), 3U);
  EXPECT_LE(Count(text, "\"value\":\"hot\""), 20U);
  EXPECT_GE(Count(text, "\"key\":\"key-1\""), 3U);
}

TEST_F(FeedsTest, OneThatNeverCatchesUpIsToldWhoCameAndLeftBeforeTheirRows) {
  SetMany("cold", 2000);
  EventFeed feed(model_, "{}\n");
  FillAll(feed);
  const Member pump = PressAt(2);
  Texts told;
  for (int piece = 0; piece < 60; ++piece) {
    SetMany("cold", 1000);
    if (piece % 8 == 0) model_.AddMember(pump, 8);
    model_.SetRow(pump, {"status", "speed", "of-pump", 1});
    if (piece % 8 == 5) model_.RemoveMember(pump.place, {}, 9);
    for (const std::string& one : Told(Fill(feed))) {
      if (one != "cold") told.push_back(one);
    }
  }

  bool is_there = false;
  int rows = 0;
  for (const std::string& one : told) {
    EXPECT_TRUE(one != "of-pump" || is_there);
    EXPECT_TRUE(one != "member" || !is_there);
    if (one == "member") is_there = true;
    if (one == "left") is_there = false;
    rows += one == "of-pump" ? 1 : 0;
  }
  EXPECT_GE(rows, 2);
}

TEST_F(FeedsTest, OneThatWasBehindIsToldAllOfTheNewestValues) {
  SetMany("old", 2000);
  EventFeed feed(model_, "{}\n");
  FillAll(feed);
  for (int piece = 0; piece < 30; ++piece) {
    SetMany("old", 1000);
    Fill(feed);
  }
  SetMany("new", 2000);
  ComeAndGo(1);

  const std::string text = FillAll(feed);

  std::set<std::string> keys;
  for (std::size_t at = text.find("\"key\":"); at != std::string::npos; at = text.find("\"key\":", at + 1)) {
    keys.insert(text.substr(at, text.find(',', at) - at));
  }
  EXPECT_EQ(keys.size(), 2000U);
  EXPECT_EQ(Count(text, "\"value\":\"old\""), 0U);
  EXPECT_EQ(Count(text, "event: left"), 1U);
  EXPECT_FALSE(feed.HasMore());
}

TEST_F(FeedsTest, OneThatHasMissedWhoLeftBeginsAnew) {
  EventFeed feed(model_, "{}\n");
  FillAll(feed);
  for (std::uint16_t port = 2; port < 1000; ++port) {
    model_.AddMember(PressAt(port), 8);
    model_.RemoveMember(PressAt(port).place, {}, 9);
  }

  Texts told{"time", "hello"};
  told.insert(told.end(), 64, "left");
  told.insert(told.end(), {"member", "ready"});
  EXPECT_EQ(Told(FillAll(feed)), told);
  EXPECT_FALSE(feed.HasMore());
}

TEST_F(FeedsTest, OneThatIsSlowComesToItsEndThoughOthersLeaveAllTheTime) {
  SetMany("1", 3000);
  ComeAndGo(64);  // As many as are remembered: each further one takes the place of another.

  ExpectAnEndWhileSoManyLeaveAtATime(1);
}

TEST_F(FeedsTest, OneThatIsSlowComesToItsEndThoughMoreLeaveThanAreRemembered) {
  SetMany("1", 3000);

  ExpectAnEndWhileSoManyLeaveAtATime(30);
}

TEST_F(FeedsTest, OneThatMissesADepartureBeforeItIsReadyBeginsAnew) {
  SetMany("1", 3000);
  EventFeed feed(model_, "{}\n");
  ASSERT_EQ(Count(Fill(feed), "event: member"), 1U);
  model_.RemoveMember(press_.place, {}, 9);
  ComeAndGo(64);

  Texts told{"time", "hello"};
  told.insert(told.end(), 64, "left");
  told.push_back("ready");
  EXPECT_EQ(Told(FillAll(feed)), told);
}

TEST_F(FeedsTest, WhoLeavesBeforeItIsToldIsNotWaitedFor) {
  EventFeed feed(model_, "{}\n");
  FillAll(feed);
  model_.AddMember(PressAt(2), 8);
  model_.RemoveMember(PressAt(2).place, {}, 9);

  EXPECT_EQ(Told(FillAll(feed)), Texts{"left"});
}

TEST_F(FeedsTest, MembersWithLongNamesAreToldPieceByPiece) {
  AddManyWithLongNames();
  MembersFeed feed(model_);
  const auto [text, longest] = FillPieces(feed);

  EXPECT_LT(longest, Feed::kPiece + 6 * kLongName + 1000);  // A character that cannot be seen takes six.
  for (std::uint16_t port = 1; port <= 100; ++port) {
    EXPECT_EQ(Count(text, "\"port\":" + std::to_string(port) + ","), 1U);
  }
}

TEST_F(FeedsTest, MetricsOfMembersWithLongNamesAreToldPieceByPiece) {
  AddManyWithLongNames();
  MetricsFeed feed(model_, 0, 1);
  const auto [text, longest] = FillPieces(feed);

  EXPECT_LT(longest, Feed::kPiece + 6 * kLongName + 2000);
  for (std::uint16_t port = 1; port <= 100; ++port) {
    EXPECT_EQ(Count(text, ",place=\"127.0.0.1:" + std::to_string(port) + "\"} 0\n"), 3U);
  }
  EXPECT_EQ(Count(text, "# TYPE varnix_member_"), 3U);
  EXPECT_EQ(Count(text, "# TYPE varnix_member_rows_size_bytes gauge\n"), 1U);
}

TEST_F(FeedsTest, MetricsCallAMemberTheSameWhateverTheTerminalShows) {
  ShowAsciiOnly();
  Member oven = PressAt(2);
  oven.device = "\xC3\xB6";
  model_.AddMember(oven, 8);
  MetricsFeed feed(model_, 0, 1);

  EXPECT_EQ(Count(FillAll(feed), "{device=\"\xC3\xB6\",process=\"ctl\""), 3U);
}

TEST_F(FeedsTest, RowsAreToldByTableAndKeyAndOnceThoughTheyChange) {
  SetMany("old", 2000);
  Set("other", "1", "another");
  RowsFeed feed(model_, "status");
  std::string text = Fill(feed);
  ASSERT_TRUE(feed.HasMore());
  SetMany("new", 2000);
  text += FillAll(feed);

  const Texts told = Told(text);
  EXPECT_EQ(told.size(), 2000U);
  EXPECT_EQ(told.front(), "old");
  EXPECT_EQ(told.back(), "new");
  EXPECT_EQ(Count(text, "\"key\":\"key-1999\""), 1U);
}

TEST_F(FeedsTest, RowsOfEveryTableAreToldWhereNoneIsNamed) {
  Set("speed", "1");
  Set("speed", "2", "");
  Set("speed", "3", "log");
  RowsFeed feed(model_, std::nullopt);

  EXPECT_EQ(Told(FillAll(feed)), (Texts{"2", "3", "1"}));
}

TEST_F(FeedsTest, RowsOfWhoLeavesWhileTheyAreToldAreLeftOut) {
  const Member pump = PressAt(2);
  model_.AddMember(pump, 8);
  model_.SetRow(pump, {"status", "last", "of-pump", 1});
  SetMany("old", 2000);
  RowsFeed feed(model_, std::nullopt);
  Fill(feed);
  model_.RemoveMember(press_.place, {}, 9);

  EXPECT_EQ(Told(FillAll(feed)), Texts{"of-pump"});
}

}  // namespace
