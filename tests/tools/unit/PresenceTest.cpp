// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// What others see of us while we are there, and when we go.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <memory>
#include <vector>

#include "Quiet.h"
#include "net/Presence.h"
#include "net/Sockets.h"
#include "wire/CombinedKey.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

bool IsListener(int descriptor) {
  int listens = 0;
  socklen_t size = sizeof listens;
  return getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size) == 0 && listens != 0;
}

// A presence in a group without anybody else.
struct Appearance : Discovery::Owner, Presence::Owner {
  void OnAnnouncement(const Place&, const std::string&) override {}
  void OnGuest(const Place&, const std::string&, bool) override {}

  QuietNetwork network;
  DrivenClock clock;
  Loop loop;
  Discovery discovery{loop, INADDR_LOOPBACK, *this};
  OwnTable no_rows;
  std::unique_ptr<Presence> presence = std::make_unique<Presence>(
      loop, discovery, Presence::Settings{"line-4", "plant", CombinedKey("bench", "varnix")}, no_rows, *this);
};

TEST(Presence, ClosesItsPortBeforeItsStreamsSoThatNobodyWhoConnectsAgainIsReset) {
  Appearance appearance;
  int error = 0;
  const FileDescriptor visitor = BeginConnecting({INADDR_LOOPBACK, appearance.presence->Port()}, error);
  for (int i = 0; i < kMostTurns && appearance.presence->Unanswered() == 0; ++i) {
    appearance.loop.Turn(appearance.clock.now + kTurn);
  }
  ASSERT_EQ(appearance.presence->Unanswered(), 1u);
  std::vector<bool> closed;
  const Hooked closing(Hooks().close, [&closed](int descriptor) {
    closed.push_back(IsListener(descriptor));
    return Hooks().close.Real(descriptor);
  });

  appearance.presence.reset();

  EXPECT_EQ(closed, (std::vector<bool>{true, false}));
}

TEST(Presence, IsAnnouncedFourTimesSoonAndThenOnceAMinuteByTheClock) {
  Appearance appearance;
  const TimePoint begun = appearance.clock.now;
  int announced = 1;
  const Hooked counting(Hooks().sendto, [&](int, const void*, std::size_t size, int, const sockaddr*, socklen_t) {
    ++announced;
    return static_cast<ssize_t>(size);
  });
  for (const int due : {2, 4, 6, 66, 126, 186}) {
    const int before = announced;
    appearance.clock.now = begun + seconds(due) - milliseconds(1);
    appearance.loop.Turn(appearance.clock.now);
    EXPECT_EQ(announced, before) << due;

    appearance.clock.now = begun + seconds(due) + milliseconds(186 - due);  // Late, and less so each time.
    appearance.loop.Turn(appearance.clock.now);
    EXPECT_EQ(announced, before + 1) << due;
  }

  appearance.clock.now = begun + seconds(1000);
  for (int i = 0; i < 3; ++i) appearance.loop.Turn(appearance.clock.now);
  EXPECT_EQ(announced, 8);  // Nothing is made good for.
}

}  // namespace
