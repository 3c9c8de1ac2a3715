// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Whom a member that only sets rows takes for members, and when it is done with them.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Quiet.h"
#include "net/Setter.h"
#include "net/Sockets.h"
#include "wire/CombinedKey.h"
#include "wire/Record.h"

namespace {

constexpr std::uint16_t kPort = 9;

// A setter, and the port that it announces.
struct Stage {
  Stage() { rows.Set(CombinedKey("status", "speed"), "42"); }

  template <class Condition>
  bool Until(const Condition& condition) {
    for (int i = 0; i < kMostTurns && !condition(); ++i) {
      loop.Turn(clock.now + kTurn);
      setter.Tidy();
    }
    return condition();
  }

  QuietNetwork network;
  std::uint16_t port = 0;
  Hooked<ssize_t(int, const void*, std::size_t, int, const sockaddr*, socklen_t)> announced{
      Hooks().sendto, [this](int, const void* datagram, std::size_t size, int, const sockaddr*, socklen_t) {
        const auto* const bytes = static_cast<const unsigned char*>(datagram);
        port = static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
        return static_cast<ssize_t>(size);
      }};
  DrivenClock clock;
  Loop loop;
  OwnTable rows;
  Setter setter{loop, {"line-4", "plant", INADDR_LOOPBACK, CombinedKey("bench", "varnix")}, rows};
};

// One that connects, and says that it is of group line-4.
FileDescriptor Visit(Stage& stage) {
  int error = 0;
  FileDescriptor visitor = BeginConnecting({INADDR_LOOPBACK, stage.port}, error);
  pollfd awaited{visitor.Get(), POLLOUT, 0};
  EXPECT_EQ(poll(&awaited, 1, 60'000), 1);
  std::string answer;
  AppendRecord(answer, {"line-4", {"\0\x09", 2}});
  EXPECT_EQ(send(visitor.Get(), answer.data(), answer.size(), 0), static_cast<ssize_t>(answer.size()));
  return visitor;
}

TEST(Setter, RemembersAMemberThatLeavesBeforeItHasTakenTheRows) {
  Stage stage;
  FileDescriptor visitor = Visit(stage);
  ASSERT_TRUE(stage.Until([&] { return stage.setter.Connected() == 1; }));
  EXPECT_TRUE(stage.setter.Lost().empty());

  visitor = FileDescriptor();

  ASSERT_TRUE(stage.Until([&] { return stage.setter.Connected() == 0; }));
  const std::vector<Place> lost{{INADDR_LOOPBACK, kPort}};
  EXPECT_EQ(stage.setter.Lost(), lost);
  visitor = Visit(stage);
  ASSERT_TRUE(stage.Until([&] { return stage.setter.Connected() == 1; }));
  EXPECT_TRUE(stage.setter.Lost().empty());
  EXPECT_EQ(stage.setter.Untaken(), lost);
}

TEST(Setter, CountsMembersThatComeAlsoWhereVeryManyHaveLeft) {
  constexpr std::uint32_t kMany = 4096;
  Stage stage;
  const FileDescriptor visitor = Visit(stage);
  ASSERT_TRUE(stage.Until([&] { return stage.setter.Connected() == 1; }));
  const auto come = [&](std::uint32_t number) {
    static_cast<Presence::Owner&>(stage.setter).OnGuest({INADDR_LOOPBACK + number, kPort}, "line-4", true);
  };

  for (std::uint32_t number = 1; number <= kMany; ++number) come(number);

  const std::vector<Place> members = stage.setter.Untaken();
  ASSERT_EQ(members.size(), kMany);
  EXPECT_EQ(members.front(), (Place{INADDR_LOOPBACK, kPort}));  // It is there.
  EXPECT_EQ(members.back(), (Place{INADDR_LOOPBACK + kMany, kPort}));
}

TEST(Setter, AsksNobodyToConnectOnceItHasFinished) {
  Stage stage;
  int connecting = 0;
  const Hooked counting(Hooks().connect, [&connecting](int, const sockaddr*, socklen_t) {
    ++connecting;
    errno = EINPROGRESS;
    return -1;
  });
  const auto hear = [&](std::uint16_t port) {
    static_cast<Discovery::Owner&>(stage.setter).OnAnnouncement({INADDR_LOOPBACK, port}, "line-4");
  };
  hear(kPort);
  ASSERT_EQ(connecting, 1);
  stage.setter.Finish();

  hear(kPort + 1);

  EXPECT_EQ(connecting, 1);
}

TEST(Setter, AsksNobodyToConnectWhoAnswersOnceItHasFinished) {
  Stage stage;
  Fake member(stage.loop);
  static_cast<Discovery::Owner&>(stage.setter).OnAnnouncement(member.At(), "line-4");
  ASSERT_TRUE(stage.Until([&] { return member.IsVisited(); }));

  stage.setter.Finish();
  member.Send("plant", CombinedKey("press", "ctl"));

  ASSERT_TRUE(stage.Until([&] { return member.Received() >= 0; }));
  EXPECT_EQ(member.Received(), 0);  // The connection ends without a word.
}

TEST(Setter, TakesNobodyForAMemberWhoOnlyAsksItToConnect) {
  struct Unconcerned : ReceivingStream::Owner {
    void OnGreeting(ReceivingStream&, std::string_view, std::string_view) override {}
    void OnRow(ReceivingStream&, std::string_view, std::string_view) override {}
    void OnBytes(ReceivingStream&) override {}
  } owner;
  Stage stage;
  int flags = 0;
  const Hooked sending(Hooks().send, [&flags](int socket, const void* bytes, std::size_t size, int its_flags) {
    flags |= its_flags;
    return Hooks().send.Real(socket, bytes, size, its_flags);
  });
  const ReceivingStream asking(stage.loop, {INADDR_LOOPBACK, stage.port}, {"line-4", kPort, false}, owner);

  ASSERT_TRUE(stage.Until([&] { return asking.IsEnded(); }));

  EXPECT_EQ(asking.GetEnd().kind, End::Kind::kClosed);
  EXPECT_EQ(stage.setter.Met(), 0u);
  EXPECT_NE(flags & MSG_MORE, 0);  // Its answer leaves together with its end, so that none is seen without the other.
}

}  // namespace
