// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// What the observer does with members that send much, and where the system gives it no more descriptors.
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "Quiet.h"
#include "net/Observer.h"
#include "net/OwnTable.h"
#include "net/SendingStream.h"
#include "net/Snapshot.h"
#include "net/Sockets.h"
#include "support/DescriptorLimit.h"
#include "support/FailWith.h"
#include "support/SystemCallHooks.h"
#include "wire/CombinedKey.h"
#include "wire/Record.h"

namespace {

using std::chrono::seconds;

// Keeps the value of every row.
struct Keeper : Audience {
  std::vector<Place> met, over_limit, no_room;
  std::size_t rows = 0;

  void OnMet(const Member& member) override { met.push_back(member.place); }
  std::size_t OnRow(const Member&, const Row& row) override {
    ++rows;
    return row.value.size();
  }
  void OnEnd(const Member& member, const End& end) override {
    if (end.kind == End::Kind::kOverLimit) over_limit.push_back(member.place);
    if (end.kind == End::Kind::kNoRoom) no_room.push_back(member.place);
  }
};

Observer::Settings Settings(std::size_t memory) {
  Observer::Settings settings;
  settings.group = "line-4";
  settings.database = "plant";
  settings.announces = false;
  settings.wants_changes = false;
  settings.memory = memory;
  return settings;
}

// An observer, and the time that it lives in.
struct Scene {
  explicit Scene(const Observer::Settings& settings) : observer(loop, settings, keeper) {}

  // Turns until the condition holds; it is false in the end if it never does.
  template <class Condition>
  bool Until(const Condition& condition) {
    for (int i = 0; i < kMostTurns && !condition(); ++i) {
      loop.Turn(clock.now + kTurn);
      observer.Tidy();
    }
    return condition();
  }

  // Rows with values of 1000 bytes, one after the other.
  void Receive(const Fake& fake, int rows) {
    for (int i = 0; i < rows && keeper.over_limit.empty(); ++i) {
      const std::size_t before = keeper.rows;
      fake.Send(CombinedKey("status", std::to_string(i)), std::string(1000, 'x'));
      ASSERT_TRUE(Until([&] { return keeper.rows > before; }));
    }
  }

  // The fake is heard, and says who it is.
  void Meet(Fake& fake, const std::string& group = "line-4") {
    static_cast<Discovery::Owner&>(observer).OnAnnouncement(fake.At(), group);
    ASSERT_TRUE(Until([&] { return fake.IsVisited(); }));
    fake.Send("plant", CombinedKey("fake", "ctl"));
    ASSERT_TRUE(Until([&] { return std::count(keeper.met.begin(), keeper.met.end(), fake.At()) > 0; }));
  }

  QuietNetwork network;
  DrivenClock clock;
  Loop loop;
  Keeper keeper;
  Observer observer;
};

TEST(Observer, CountsWhatIsKeptOfMembersThatHaveSentEverything) {
  Scene scene(Settings(150'000));
  Fake first(scene.loop), second(scene.loop);
  scene.Meet(first);
  scene.Receive(first, 100);
  scene.clock.now += Snapshot::kWhile;
  ASSERT_TRUE(scene.Until([&] { return scene.observer.Unfinished().empty(); }));

  scene.Meet(second);
  scene.Receive(second, 70);

  EXPECT_EQ(scene.keeper.over_limit, (std::vector<Place>{first.At()}));  // Which needs most.
  EXPECT_EQ(scene.observer.Met(), 1);
}

TEST(Observer, ConnectsAgainAtOnceOnlyWhereTheStreamHasLastedASecond) {
  for (const auto& [lasted, pause] : {std::pair(seconds(1), seconds(0)), std::pair(seconds(0), seconds(2))}) {
    Observer::Settings settings = Settings(1 << 20);
    settings.wants_changes = true;
    Scene scene(settings);
    Fake fake(scene.loop);
    scene.Meet(fake);
    scene.clock.now += lasted;
    fake.HangUp();
    ASSERT_TRUE(scene.Until([&] { return scene.observer.Met() == 0; }));

    EXPECT_EQ(scene.observer.Deadline(), pause == seconds(0) ? TimePoint::max() : scene.clock.now + pause);
    scene.clock.now += pause;
    EXPECT_TRUE(scene.Until([&] { return fake.IsVisited(); }));
  }
}

TEST(Observer, TriesAgainInTimeAlsoWhereAVisitFailsAtOnce) {
  Scene scene(Settings(1 << 20));
  const Hooked no_network(Hooks().connect, FailWith{ENETUNREACH});
  static_cast<Discovery::Owner&>(scene.observer).OnAnnouncement({INADDR_LOOPBACK, 9}, "line-4");

  for (int visit = 0; visit < 3; ++visit) {
    EXPECT_EQ(scene.observer.Deadline(), scene.clock.now);
    scene.observer.Tidy();
    EXPECT_EQ(scene.observer.Deadline(), scene.clock.now + seconds(2));
    scene.clock.now += seconds(2);
    scene.observer.Tidy();
  }
}

TEST(Observer, GivesUpAPlaceWhereNobodySaysWhoTheyAreHoweverLongThatTakes) {
  Scene scene(Settings(1 << 20));
  const Fake silent(scene.loop);
  static_cast<Discovery::Owner&>(scene.observer).OnAnnouncement(silent.At(), "line-4");

  for (int i = 0; i < 20; ++i) {
    scene.clock.now += seconds(9);
    scene.loop.Turn(scene.clock.now);
    scene.observer.Tidy();
  }

  EXPECT_TRUE(scene.observer.Unfinished().empty());
  EXPECT_EQ(scene.observer.Deadline(), TimePoint::max());
}

TEST(Observer, LetsTheAddressThatFillsEveryPlaceGiveWayToAnother) {
  Observer::Settings settings = Settings(1 << 20);
  settings.places = 3;
  Scene scene(settings);
  Fake first(scene.loop), second(scene.loop), third(scene.loop), fourth(scene.loop), elsewhere(scene.loop);
  for (Fake* const fake : {&first, &second, &third}) scene.Meet(*fake);
  const auto hear = [&](const Place& place) {
    static_cast<Discovery::Owner&>(scene.observer).OnAnnouncement(place, "line-4");
  };

  hear(fourth.At());
  EXPECT_EQ(scene.keeper.no_room, (std::vector<Place>{fourth.At()}));  // It would do no better than the others.
  hear({INADDR_LOOPBACK + 1, elsewhere.At().port});

  EXPECT_TRUE(scene.Until([&] { return elsewhere.IsVisited(); }));
  EXPECT_EQ(scene.keeper.no_room, (std::vector<Place>{fourth.At(), std::min({first.At(), second.At(), third.At()})}));
  EXPECT_EQ(scene.observer.Met(), 2);
}

TEST(Observer, LeavesOutTheAnnouncementThatFollowsTheSignOfAnotherObserver) {
  Scene scene(Settings(1 << 20));
  Fake fake(scene.loop);
  static_cast<Discovery::Owner&>(scene.observer).OnAnnouncement(fake.At(), "(observer)");
  static_cast<Discovery::Owner&>(scene.observer).OnAnnouncement(fake.At(), "line-4");
  EXPECT_TRUE(scene.observer.Unfinished().empty());

  scene.Meet(fake);  // A member that has got the port of an observer that has left.

  EXPECT_EQ(scene.observer.Met(), 1);
}

TEST(Observer, MeetsAMemberForWhoseGroupNoPortCanBeHad) {
  Observer::Settings settings = Settings(1 << 20);
  settings.group.reset();
  settings.announces = true;
  Scene scene(settings);
  Fake fake(scene.loop);
  static_cast<Discovery::Owner&>(scene.observer).OnAnnouncement(fake.At(), "line-5");
  ASSERT_TRUE(scene.Until([&] { return fake.IsVisited(); }));
  const Hooked no_descriptors(Hooks().socket, FailWith{EMFILE});
  fake.Send("plant", CombinedKey("fake", "ctl"));

  EXPECT_TRUE(scene.Until([&] { return scene.observer.Met() == 1; }));
  EXPECT_EQ(scene.observer.AnnouncedAt(), TimePoint());  // It appears nowhere.
}

TEST(ReceivingStream, LetsOthersHaveTheirTurnHoweverLongItsRowsTake) {
  struct Slow : ReceivingStream::Owner {
    DrivenClock clock;
    int rows = 0;
    void OnGreeting(ReceivingStream&, std::string_view, std::string_view) override {}
    void OnRow(ReceivingStream&, std::string_view, std::string_view) override {
      ++rows;
      clock.now += seconds(1);
    }
    void OnBytes(ReceivingStream&) override {}
  } owner;
  Loop loop;
  Fake fake(loop);
  ReceivingStream stream(loop, fake.At(), {"(observer)", 0}, owner);
  const auto turn_until = [&](const auto& condition) {
    for (int i = 0; i < kMostTurns && !condition(); ++i) loop.Turn(owner.clock.now + kTurn);
  };
  turn_until([&] { return fake.IsVisited(); });
  fake.Send("plant", CombinedKey("fake", "ctl"));
  turn_until([&] { return stream.IsReceiving(); });
  std::string three;
  for (int i = 0; i < 3; ++i) AppendRecord(three, {CombinedKey("status", "a"), "x"});
  fake.Send(three);

  for (int rows = 1; rows <= 3; ++rows) {
    turn_until([&] { return owner.rows >= rows; });
    EXPECT_EQ(owner.rows, rows);
  }
}

// A stream of which nobody looks at what comes.
struct Lonely : private ReceivingStream::Owner {
  explicit Lonely(bool wants_rows) : stream(loop, fake.At(), {"line-4", 1, wants_rows}, *this) {
    TurnUntil([&] { return fake.IsVisited(); });
  }

  template <class Condition>
  void TurnUntil(const Condition& condition) {
    for (int i = 0; i < kMostTurns && !condition(); ++i) loop.Turn(clock.now + kTurn);
  }

  void OnGreeting(ReceivingStream&, std::string_view, std::string_view) override {}
  void OnRow(ReceivingStream&, std::string_view, std::string_view) override {}
  void OnBytes(ReceivingStream&) override {}

  DrivenClock clock;
  Loop loop;
  Fake fake{loop};
  ReceivingStream stream;
};

TEST(ReceivingStream, EndsAsSoonAsAGreetingClaimsToBeLongerThanAnyIs) {
  Lonely lonely(true);

  lonely.fake.Send("\xff\xff\xff\xff");

  lonely.TurnUntil([&] { return lonely.stream.IsEnded(); });
  ASSERT_TRUE(lonely.stream.IsEnded());
  EXPECT_EQ(lonely.stream.GetEnd().kind, End::Kind::kLongName);
}

TEST(ReceivingStream, GivesUpAMemberThatDiesBeforeItHasTakenOurAnswer) {
  int socket = -1;
  const Hooked connects(Hooks().connect, [&](int connecting, const sockaddr* address, socklen_t size) {
    socket = connecting;
    return Hooks().connect.Real(connecting, address, size);
  });
  Lonely lonely(true);

  lonely.fake.Send("plant", CombinedKey("fake", "ctl"));

  lonely.TurnUntil([&] { return lonely.stream.IsReceiving(); });
  int limit_ms = 0;
  socklen_t size = sizeof limit_ms;
  ASSERT_EQ(getsockopt(socket, IPPROTO_TCP, TCP_USER_TIMEOUT, &limit_ms, &size), 0);
  EXPECT_EQ(limit_ms, 4000);  // By default the system would try for a quarter of an hour.
}

TEST(ReceivingStream, KeepsNothingOfRowsThatAreNotWanted) {
  Lonely lonely(false);
  std::string records;
  AppendRecord(records, {"plant", CombinedKey("fake", "ctl")});
  AppendRecord(records, {CombinedKey("status", "speed"), std::string(10'000, 'x')});
  records.pop_back();  // Nothing would be kept of a whole one.

  lonely.fake.Send(records);

  lonely.TurnUntil([&] { return lonely.stream.IsReceiving(); });
  ASSERT_TRUE(lonely.stream.IsReceiving());
  EXPECT_LT(lonely.stream.Held(), 100u);
}

TEST(ReceivingStream, EndsWhereNoRowIsWantedAndTheMemberStays) {
  Lonely lonely(false);
  lonely.fake.Send("plant", CombinedKey("fake", "ctl"));
  lonely.TurnUntil([&] { return lonely.stream.IsReceiving(); });
  ASSERT_TRUE(lonely.stream.IsReceiving());

  lonely.clock.now += seconds(6);

  lonely.TurnUntil([&] { return lonely.stream.IsEnded(); });
  EXPECT_TRUE(lonely.stream.IsEnded());
}

TEST(ReceivingStream, GivesItsMemoryBackWhenItIsDropped) {
  Lonely lonely(true);
  std::string records;
  AppendRecord(records, {"plant", CombinedKey("fake", "ctl")});
  AppendRecord(records, {CombinedKey("status", "speed"), std::string(10'000, 'x')});
  records.pop_back();
  lonely.fake.Send(records);
  lonely.TurnUntil([&] { return lonely.stream.Held() >= 10'000; });
  ASSERT_GE(lonely.stream.Held(), 10'000u);

  lonely.stream.DropAs({End::Kind::kOverLimit});

  EXPECT_TRUE(lonely.stream.IsEnded());
  EXPECT_LT(lonely.stream.Held(), 100u);
}

TEST(SendingStream, SharesALargeValueWithAllOthersUntilItIsSent) {
  struct Guest {
    FileDescriptor ours, its;
    explicit Guest(const std::string& answer) {
      int ends[2];
      EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
      ours = FileDescriptor(ends[0]);
      its = FileDescriptor(ends[1]);
      EXPECT_EQ(send(its.Get(), answer.data(), answer.size(), 0), static_cast<ssize_t>(answer.size()));
    }
  };
  std::string answer, rest;
  AppendRecord(answer, {"line-4", {"\0\x09", 2}});
  OwnTable rows;
  const std::string large(kMostBytesOfB, 'x');
  rows.Set("a", "1");
  rows.Set("b", large);
  rows.Set("c", "3");
  for (const Record& record : {Record{"a", "1"}, Record{"b", large}, Record{"c", "3"}}) AppendRecord(rest, record);

  Loop loop;
  Guest reading(answer), silent(answer);
  const SendingStream to_reading(loop, std::move(reading.ours), INADDR_LOOPBACK, "", rows);
  const SendingStream to_silent(loop, std::move(silent.ours), INADDR_LOOPBACK, "", rows);
  for (int i = 0; i < 10; ++i) loop.Turn(Clock::now());
  EXPECT_EQ(rows.After(1)->second.value.use_count(), 3);  // One of the table, one of each stream.

  std::string received;
  for (int i = 0; i < 10000 && received.size() < rest.size(); ++i) {
    char piece[1 << 16];
    const ssize_t size = recv(reading.its.Get(), piece, sizeof piece, 0);
    if (size > 0) received.append(piece, static_cast<std::size_t>(size));
    loop.Turn(Clock::now());
  }
  EXPECT_EQ(received, rest);
  EXPECT_EQ(rows.After(1)->second.value.use_count(), 2);
}

TEST(SendingStream, EndsInOrderAlsoWhereTheAnswerHasComeMeanwhile) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
  const FileDescriptor its(ends[1]);
  Loop loop;
  const OwnTable no_rows;
  auto stream = std::make_unique<SendingStream>(loop, FileDescriptor(ends[0]), INADDR_LOOPBACK, "", no_rows);
  ASSERT_EQ(send(its.Get(), "answer", 6, 0), 6);

  stream.reset();

  char byte = 0;
  EXPECT_EQ(recv(its.Get(), &byte, 1, 0), 0);  // The end of the stream, and no error.
}

TEST(Loop, PollsOnlyThoseThatWaitForADescriptor) {
  struct Idle : Waiter {
    using Waiter::Waiter;
    pollfd Awaited() const override { return {-1, 0, 0}; }
    void OnReady(short) override {}
  };
  Loop loop;
  const Idle first(loop), second(loop), third(loop);
  nfds_t polled = 99;
  const Hooked polling(Hooks().poll, [&polled](pollfd*, nfds_t count, int) {
    polled = count;
    return 0;
  });

  loop.Turn(Clock::now());

  EXPECT_EQ(polled, 0u);  // More entries than descriptors are allowed would be an error.
}

struct Host : Discovery::Owner, Presence::Owner {
  void OnAnnouncement(const Place&, const std::string&) override {}
  void OnGuest(const Place&, const std::string&, bool) override {}
};

TEST(Presence, LeavesDescriptorsToTheOthersThatItSharesThemWith) {
  const QuietNetwork network;
  const DescriptorLimit limit(256);
  Host host;
  Loop loop;
  Discovery discovery(loop, INADDR_LOOPBACK, host);
  const OwnTable no_rows;
  Presence::Settings settings{"line-4", "plant", CombinedKey("bench", "varnix")};
  settings.sharers = 16;
  const Presence presence(loop, discovery, settings, no_rows, host);

  std::vector<FileDescriptor> visitors;
  for (int i = 0; i < 20; ++i) {
    int error = 0;
    visitors.push_back(BeginConnecting({INADDR_LOOPBACK, presence.Port()}, error));
    ASSERT_EQ(error, 0);
  }
  for (int i = 0; i < kMostTurns && presence.Unanswered() < 8; ++i) loop.Turn(Clock::now() + kTurn);
  loop.Turn(Clock::now());

  EXPECT_EQ(presence.Unanswered(), 8u);  // Half of the limit is for guests.
}

}  // namespace
