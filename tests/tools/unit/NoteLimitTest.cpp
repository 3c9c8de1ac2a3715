// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// How much a command says of those who make trouble.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>

#include "commands/ObserverCommand.h"
#include "io/NoteLimit.h"
#include "support/SystemCallHooks.h"

namespace {

using std::chrono::seconds;

const TimePoint kNow = Clock::now();

std::size_t Admitted(NoteLimit& limit, std::size_t count, TimePoint now) {
  std::size_t admitted = 0;
  for (std::size_t i = 0; i < count; ++i) admitted += limit.Admits(now) ? 1 : 0;
  return admitted;
}

TEST(NoteLimit, AdmitsSoManyInAMinute) {
  NoteLimit limit;

  EXPECT_EQ(Admitted(limit, 40, kNow), 40u);
  EXPECT_EQ(Admitted(limit, 1000, kNow + seconds(59)), NoteLimit::kMost - 40);
  EXPECT_EQ(Admitted(limit, 1000, kNow + seconds(60)), NoteLimit::kMost);
  EXPECT_EQ(Admitted(limit, 1000, kNow + seconds(119)), 0u);
}

TEST(NoteLimit, TellsHowManyItLeftOutWhenTheMinuteIsOver) {
  NoteLimit limit;
  Admitted(limit, NoteLimit::kMost, kNow);
  EXPECT_EQ(limit.Deadline(), TimePoint::max());

  Admitted(limit, 7, kNow + seconds(30));

  EXPECT_EQ(limit.Deadline(), kNow + NoteLimit::kPeriod);
  EXPECT_EQ(limit.TakeLeftOut(kNow + seconds(59)), 0u);
  EXPECT_EQ(limit.TakeLeftOut(kNow + seconds(60)), 7u);
  EXPECT_EQ(limit.TakeLeftOut(TimePoint::max()), 0u);
}

Options PassiveOptions() {
  Options options;
  options.group = "line-4";
  options.database = "plant";
  options.passive = true;
  return options;
}

ObserverCommand::Kind GoingOn() {
  ObserverCommand::Kind kind;
  kind.living = true;
  return kind;
}

struct QuietCommand : ObserverCommand {
  QuietCommand() : ObserverCommand(PassiveOptions(), GoingOn(), STDOUT_FILENO) {}
  using ObserverCommand::OnEnd;
  bool Finish() override { return true; }
};

// A command that hears nobody, the time that it lives in, and what it says.
struct NoteScene {
  TimePoint now = kNow;
  std::string said;
  Hooked<TimePoint()> clock{Hooks().now, [this] { return now; }};
  Hooked<int(int, const sockaddr*, socklen_t)> bind{Hooks().bind, [](int, const sockaddr*, socklen_t) { return 0; }};
  Hooked<ssize_t(int, const void*, std::size_t)> write{Hooks().write, [this](int, const void* text, std::size_t size) {
                                                         said.append(static_cast<const char*>(text), size);
                                                         return static_cast<ssize_t>(size);
                                                       }};
  QuietCommand command;

  // What it says when nobody can be reached at this port.
  std::string Refused(std::uint16_t port) {
    said.clear();
    Member member;
    member.place = {INADDR_LOOPBACK, port};
    command.OnEnd(member, {End::Kind::kUnreachable, ECONNREFUSED});
    return said;
  }
};

constexpr std::uint16_t kPorts = NoteLimit::kMost;

TEST(NoteLimit, LeavesEachMemberOutOnceInAMinute) {
  NoteScene scene;
  for (std::uint16_t port = 1; port <= kPorts; ++port) EXPECT_NE(scene.Refused(port), "");

  for (int i = 0; i < 10; ++i) EXPECT_EQ(scene.Refused(kPorts + 1) + scene.Refused(kPorts + 2), "");

  scene.now += NoteLimit::kPeriod;
  EXPECT_EQ(scene.Refused(1), "varnix: 2 more notes of this kind left out: a minute has at most 60\n");
}

TEST(NoteLimit, LetsAMemberThatWasLeftOutBeNamedInAnotherMinute) {
  NoteScene scene;
  for (std::uint16_t port = 1; port <= kPorts + 1; ++port) scene.Refused(port);

  scene.now += NoteLimit::kPeriod;

  EXPECT_EQ(scene.Refused(kPorts + 1),
            "varnix: 1 more note of this kind left out: a minute has at most 60\n"
            "varnix: 127.0.0.1:61 cannot be reached: Connection refused\n");
  EXPECT_EQ(scene.Refused(kPorts + 1), "");
}

}  // namespace
