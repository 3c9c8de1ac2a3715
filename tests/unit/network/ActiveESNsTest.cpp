// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gmock/gmock.h>

#include <atomic>
#include <csignal>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Registration.h"
#include "network/ActiveESNs.h"

namespace {

std::shared_ptr<ActiveESNs> MakeActiveESNs() {
  return std::make_shared<ActiveESNs>([] {});
}

}  // namespace

TEST(ActiveESNs, UidThatIsNotInTheSetIsInserted) {
  const auto active = MakeActiveESNs();

  const Registration registration(active, "\3devproc");

  EXPECT_TRUE(registration.Inserted());
}

TEST(ActiveESNs, UidThatIsAlreadyInTheSetIsNotInserted) {
  const auto active = MakeActiveESNs();
  const Registration first(active, "\3devproc");

  const Registration second(active, "\3devproc");

  EXPECT_FALSE(second.Inserted());
}

TEST(ActiveESNs, RegistrationThatWasNotInsertedErasesNothing) {
  const auto active = MakeActiveESNs();
  const Registration first(active, "\3devproc");

  { const Registration second(active, "\3devproc"); }

  EXPECT_FALSE(Registration(active, "\3devproc").Inserted());
}

TEST(ActiveESNs, UidLeavesTheSetWithItsRegistration) {
  const auto active = MakeActiveESNs();

  { const Registration first(active, "\3devproc"); }

  EXPECT_TRUE(Registration(active, "\3devproc").Inserted());
}

TEST(ActiveESNs, RegistrationErasesOnlyItsOwnUid) {
  const auto active = MakeActiveESNs();
  const Registration stays(active, "\3devone");

  { const Registration goes(active, "\3devtwo"); }

  EXPECT_FALSE(Registration(active, "\3devone").Inserted());
}

TEST(ActiveESNs, UidsAreComparedBeyondEmbeddedZeros) {
  const auto active = MakeActiveESNs();
  const Registration first(active, std::string("\1a\0b", 4));

  const Registration second(active, std::string("\1a\0c", 4));

  EXPECT_TRUE(second.Inserted());
}

TEST(ActiveESNs, SetsOfTwoServersAreIndependent) {
  const auto one = MakeActiveESNs();
  const auto other = MakeActiveESNs();
  const Registration registration(one, "\3devproc");

  const Registration elsewhere(other, "\3devproc");

  EXPECT_TRUE(elsewhere.Inserted());
}

namespace {

constexpr PeerPlace kHere = {0x7F000001, 4660};
constexpr PeerPlace kOtherPort = {0x7F000001, 4661};
constexpr PeerPlace kOtherAddress = {0x7F000002, 4660};

// What a stream from kHere learns when it ends, if the same peer is refused at these places meanwhile.
std::optional<PeerPlace> LearnedOf(const std::vector<PeerPlace>& places) {
  const auto active = MakeActiveESNs();
  std::optional<PeerPlace> learned;
  {
    const EsnRegistration stream(active, "\3devproc", kHere, learned);
    for (const PeerPlace& place : places) {
      std::optional<PeerPlace> nothing;
      { const EsnRegistration refused(active, "\3devproc", place, nothing); }
      EXPECT_FALSE(nothing);
    }
    EXPECT_FALSE(learned) << "before its end";
  }
  return learned;
}

bool IsAt(const std::optional<PeerPlace>& place, const PeerPlace& expected) {
  return place && place->address == expected.address && place->port == expected.port;
}

}  // namespace

TEST(ActiveESNs, StreamLearnsAtItsEndOfAnotherPortAtWhichThePeerWasRefused) {
  EXPECT_TRUE(IsAt(LearnedOf({kOtherPort}), kOtherPort));
}

TEST(ActiveESNs, StreamLearnsAtItsEndOfAnotherAddressAtWhichThePeerWasRefused) {
  EXPECT_TRUE(IsAt(LearnedOf({kOtherAddress}), kOtherAddress));
}

TEST(ActiveESNs, StreamLearnsOfTheLastOfSeveralPlaces) {
  EXPECT_TRUE(IsAt(LearnedOf({kOtherPort, kOtherAddress, kOtherPort}), kOtherPort));
}

TEST(ActiveESNs, RefusalAtItsOwnPlaceTellsAStreamNothing) {
  EXPECT_FALSE(LearnedOf({kHere}));
  EXPECT_TRUE(IsAt(LearnedOf({kOtherPort, kHere}), kOtherPort)) << "and makes it forget nothing";
}

TEST(ActiveESNs, StreamLearnsNothingOfTheOneBefore) {
  const auto active = MakeActiveESNs();
  std::optional<PeerPlace> learned;
  {
    const EsnRegistration first(active, "\3devproc", kHere, learned);
    std::optional<PeerPlace> nothing;
    const EsnRegistration refused(active, "\3devproc", kOtherPort, nothing);
  }
  learned.reset();

  { const EsnRegistration next(active, "\3devproc", kHere, learned); }

  EXPECT_FALSE(learned);
}

TEST(ActiveESNs, LastReferenceCallsTheReleaseCallbackExactlyOnce) {
  int calls = 0;
  auto server = std::make_shared<ActiveESNs>([&] { ++calls; });
  auto peer_thread = server;
  server.reset();
  ASSERT_EQ(calls, 0);

  peer_thread.reset();

  EXPECT_EQ(calls, 1);
}

TEST(ActiveESNs, RegistrationPutsTheReleaseOff) {
  int calls = 0;
  auto active = std::make_shared<ActiveESNs>([&] { ++calls; });
  auto registration = std::make_unique<Registration>(active, "\3devproc");
  active.reset();
  ASSERT_EQ(calls, 0);

  registration.reset();

  EXPECT_EQ(calls, 1);
}

TEST(ActiveESNs, RegistrationThatWasNotInsertedPutsTheReleaseOffToo) {
  int calls = 0;
  auto active = std::make_shared<ActiveESNs>([&] { ++calls; });
  auto first = std::make_unique<Registration>(active, "\3devproc");
  auto second = std::make_unique<Registration>(active, "\3devproc");
  active.reset();
  first.reset();
  ASSERT_EQ(calls, 0);

  second.reset();

  EXPECT_EQ(calls, 1);
}

TEST(ActiveESNs, ReleaseCallbackRunsOnTheThreadThatDropsTheLastReference) {
  std::thread::id released_on;
  auto active = std::make_shared<ActiveESNs>([&] { released_on = std::this_thread::get_id(); });

  std::thread peer_thread([last = std::move(active)]() mutable { last.reset(); });

  const std::thread::id id = peer_thread.get_id();
  peer_thread.join();
  EXPECT_EQ(released_on, id);
}

TEST(ActiveESNs, EmptyReleaseCallbackEndsTheProcess) {
  const auto release = [] { ActiveESNs active{std::function<void()>()}; };

  EXPECT_EXIT(release(), testing::KilledBySignal(SIGABRT), "bad_function_call");
}

TEST(ActiveESNs, OneOfManyThreadsThatRegisterAUidGetsIt) {
  constexpr int kThreads = 8;
  const auto active = MakeActiveESNs();
  std::atomic<int> tried{0};
  std::atomic<int> inserted{0};
  std::vector<std::thread> threads;

  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      const Registration registration(active, "\3devproc");
      if (registration.Inserted()) ++inserted;
      ++tried;
      while (tried < kThreads) std::this_thread::yield();  // All keep theirs until the last has tried.
    });
  }

  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(inserted, 1);
}
