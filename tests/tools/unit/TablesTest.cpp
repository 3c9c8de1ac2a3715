// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// What is kept while members come and go.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "net/Contact.h"
#include "net/OwnTable.h"
#include "net/Snapshot.h"
#include "net/Strangers.h"

namespace {

using std::chrono::milliseconds;

std::vector<std::string> RowsAfter(const OwnTable& table, std::uint64_t change) {
  std::vector<std::string> rows;
  for (auto row = table.After(change); row != table.end(); ++row)
    rows.push_back(row->second.key + "=" + *row->second.value);
  return rows;
}

TEST(OwnTable, HasEachKeyAtThePlaceOfItsLastChange) {
  OwnTable table;
  table.Set("a", "1");
  table.Set("b", "2");
  table.Set("a", "3");

  EXPECT_EQ(RowsAfter(table, 0), (std::vector<std::string>{"b=2", "a=3"}));
  EXPECT_EQ(RowsAfter(table, 2), (std::vector<std::string>{"a=3"}));
  EXPECT_EQ(table.LastChange(), 3u);
  EXPECT_EQ(table.Size(), 2u);
}

TEST(OwnTable, TakesTheSameValueForNoChange) {
  OwnTable table;
  table.Set("a", "1");
  table.Set("b", "2");
  table.Set("a", "1");

  EXPECT_EQ(RowsAfter(table, 0), (std::vector<std::string>{"a=1", "b=2"}));
  EXPECT_EQ(table.LastChange(), 2u);
}

const TimePoint kStart = Clock::now();

TEST(Snapshot, IsCompleteAWhileAfterTheLastBytes) {
  Snapshot snapshot;
  snapshot.Begin(kStart);
  snapshot.OnBytes(kStart + milliseconds(300));
  EXPECT_FALSE(snapshot.OnRow("a"));
  EXPECT_FALSE(snapshot.OnRow("b"));

  EXPECT_EQ(snapshot.CompleteAt(), kStart + milliseconds(300) + Snapshot::kWhile);
}

TEST(Snapshot, TellsItsMemoryWhichItNeedsFromTheFirstRowToARepeatedOne) {
  Snapshot snapshot;
  snapshot.Begin(kStart);
  EXPECT_EQ(snapshot.Held(), 0u);
  snapshot.OnRow("a");
  EXPECT_EQ(snapshot.Held(), 16384u);

  snapshot.OnRow("a");
  EXPECT_EQ(snapshot.Held(), 0u);
}

struct NoOwner : ReceivingStream::Owner {
  void OnGreeting(ReceivingStream&, std::string_view, std::string_view) override {}
  void OnRow(ReceivingStream&, std::string_view, std::string_view) override {}
  void OnBytes(ReceivingStream&) override {}
};

TEST(Contact, CountsWhatIsKeptOfItAndItsSnapshot) {
  NoOwner owner;
  Loop loop;
  Contact contact;
  contact.kept = 100;
  EXPECT_EQ(contact.Memory(), 100u);  // It has sent everything.
  contact.stream = std::make_unique<ReceivingStream>(loop, Place{INADDR_LOOPBACK, 1}, ReceivingStream::Answer(), owner);
  contact.snapshot.emplace().OnRow("a");

  EXPECT_EQ(contact.Memory(), 100 + contact.stream->Held() + contact.snapshot->Held());
  EXPECT_GT(contact.snapshot->Held(), 0u);
  contact.stream->EndAs({End::Kind::kClosed});
  EXPECT_EQ(contact.Memory(), 0u);  // It is forgotten soon.
}

TEST(Snapshot, OfAMemberThatSendsWithoutAPauseIsCompleteAWhileAfterAKeyCameAgain) {
  Snapshot snapshot;
  snapshot.Begin(kStart);
  for (int i = 0; i < 100'000; ++i) EXPECT_FALSE(snapshot.OnRow("key " + std::to_string(i)));
  snapshot.OnBytes(kStart + milliseconds(100));
  EXPECT_TRUE(snapshot.OnRow("key 99999"));
  EXPECT_TRUE(snapshot.OnRow("new"));
  snapshot.OnBytes(kStart + milliseconds(900));

  EXPECT_EQ(snapshot.CompleteAt(), kStart + milliseconds(100) + Snapshot::kWhile);
}

TEST(Strangers, AreThoseWhoLeaveAndWereNotConnected) {
  Strangers strangers;
  strangers.BeginRound({});
  strangers.OnLeft(1);
  strangers.OnLeft(2);
  strangers.OnLeft(2);

  EXPECT_EQ(strangers.Most(), (CountsByAddress{{1, 1}, {2, 2}}));
}

TEST(Strangers, AreCountedAtSoManyAddressesAndNoMore) {
  Strangers strangers;
  for (int round = 0; round < 2; ++round) {
    strangers.BeginRound({});
    for (std::uint32_t address = 1; address <= 2 * Strangers::kMost; ++address) strangers.OnLeft(address);
  }
  strangers.OnLeft(1);

  EXPECT_EQ(strangers.Most().size(), Strangers::kMost);
  EXPECT_EQ(strangers.Most().begin()->second, 2);
}

TEST(Strangers, AreNotThoseWhoAreConnectedAlready) {
  Strangers strangers;
  strangers.BeginRound({});
  strangers.BeginRound({{1, 2}});
  strangers.OnLeft(1);
  strangers.OnLeft(1);
  EXPECT_TRUE(strangers.Most().empty());

  strangers.OnLeft(1);
  EXPECT_EQ(strangers.Most(), (CountsByAddress{{1, 1}}));
}

}  // namespace
