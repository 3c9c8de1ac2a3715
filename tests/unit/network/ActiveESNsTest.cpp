#include <gmock/gmock.h>

#include <atomic>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "network/ActiveESNs.h"

namespace {

std::shared_ptr<ActiveESNs> MakeActiveESNs() {
  return std::make_shared<ActiveESNs>([] {});
}

}  // namespace

TEST(ActiveESNs, UidThatIsNotInTheSetIsInserted) {
  const auto active = MakeActiveESNs();

  const EsnRegistration registration(active, "\3devproc");

  EXPECT_TRUE(registration.Inserted());
}

TEST(ActiveESNs, UidThatIsAlreadyInTheSetIsNotInserted) {
  const auto active = MakeActiveESNs();
  const EsnRegistration first(active, "\3devproc");

  const EsnRegistration second(active, "\3devproc");

  EXPECT_FALSE(second.Inserted());
}

TEST(ActiveESNs, RegistrationThatWasNotInsertedErasesNothing) {
  const auto active = MakeActiveESNs();
  const EsnRegistration first(active, "\3devproc");

  { const EsnRegistration second(active, "\3devproc"); }

  EXPECT_FALSE(EsnRegistration(active, "\3devproc").Inserted());
}

TEST(ActiveESNs, UidLeavesTheSetWithItsRegistration) {
  const auto active = MakeActiveESNs();

  { const EsnRegistration first(active, "\3devproc"); }

  EXPECT_TRUE(EsnRegistration(active, "\3devproc").Inserted());
}

TEST(ActiveESNs, RegistrationErasesOnlyItsOwnUid) {
  const auto active = MakeActiveESNs();
  const EsnRegistration stays(active, "\3devone");

  { const EsnRegistration goes(active, "\3devtwo"); }

  EXPECT_FALSE(EsnRegistration(active, "\3devone").Inserted());
}

TEST(ActiveESNs, UidsAreComparedBeyondEmbeddedZeros) {
  const auto active = MakeActiveESNs();
  const EsnRegistration first(active, std::string("\1a\0b", 4));

  const EsnRegistration second(active, std::string("\1a\0c", 4));

  EXPECT_TRUE(second.Inserted());
}

TEST(ActiveESNs, SetsOfTwoServersAreIndependent) {
  const auto one = MakeActiveESNs();
  const auto other = MakeActiveESNs();
  const EsnRegistration registration(one, "\3devproc");

  const EsnRegistration elsewhere(other, "\3devproc");

  EXPECT_TRUE(elsewhere.Inserted());
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
  auto registration = std::make_unique<EsnRegistration>(active, "\3devproc");
  active.reset();
  ASSERT_EQ(calls, 0);

  registration.reset();

  EXPECT_EQ(calls, 1);
}

TEST(ActiveESNs, RegistrationThatWasNotInsertedPutsTheReleaseOffToo) {
  int calls = 0;
  auto active = std::make_shared<ActiveESNs>([&] { ++calls; });
  auto first = std::make_unique<EsnRegistration>(active, "\3devproc");
  auto second = std::make_unique<EsnRegistration>(active, "\3devproc");
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
      const EsnRegistration registration(active, "\3devproc");
      if (registration.Inserted()) ++inserted;
      ++tried;
      while (tried < kThreads) std::this_thread::yield();  // All keep theirs until the last has tried.
    });
  }

  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(inserted, 1);
}
