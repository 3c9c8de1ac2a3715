// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// What others see of us while we are there, and when we go.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "Quiet.h"
#include "net/Presence.h"
#include "net/Sockets.h"
#include "wire/CombinedKey.h"

namespace {

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

}  // namespace
