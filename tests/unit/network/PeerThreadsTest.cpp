// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gmock/gmock.h>
#include <netinet/in.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <fstream>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <vector>

#include "network/ActiveESNs.h"
#include "network/PeerThreads.h"
#include "support/DescriptorLimit.h"
#include "support/FailWith.h"
#include "support/FailingAllocations.h"
#include "support/ForkedChild.h"
#include "support/LogRecorder.h"
#include "support/SystemCallHooks.h"

using namespace std::chrono_literals;

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr std::size_t kRoom = 48;  // Three eighths of the descriptors of these tests.

// What the threads that receive do: each is listed by the port of its place, and stays until it is told to end.
class Receivers {
 public:
  void Run(const FoundPlace& place) {
    std::unique_lock<std::mutex> lock(mutex_);
    begun_.push_back(place.port);
    last_found_at_ = place.found_at;
    changed_.notify_all();
    changed_.wait(lock, [&] { return all_end_ || may_end_.count(place.port) > 0; });
  }
  void End(unsigned short port) {
    const std::lock_guard<std::mutex> lock(mutex_);
    may_end_.insert(port);
    changed_.notify_all();
  }
  void EndAll() {
    const std::lock_guard<std::mutex> lock(mutex_);
    all_end_ = true;
    changed_.notify_all();
  }
  // Waits until so many have begun.
  bool Begin(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    // The test drives the steady clock.
    return changed_.wait_until(lock, std::chrono::system_clock::now() + 60s, [&] { return begun_.size() >= count; });
  }
  std::vector<unsigned short> Begun() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return begun_;
  }
  std::chrono::steady_clock::time_point LastFoundAt() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return last_found_at_;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<unsigned short> begun_;
  std::chrono::steady_clock::time_point last_found_at_;
  std::set<unsigned short> may_end_;
  bool all_end_ = false;
};

// The steady clock of all threads: it stands still until the test moves it.
class StandingClock {
 public:
  void Advance(std::chrono::nanoseconds by) { now_ = now_.load() + by; }
  std::chrono::steady_clock::time_point Now() const { return now_; }

 private:
  std::atomic<std::chrono::steady_clock::time_point> now_{std::chrono::steady_clock::time_point(1h)};
  Hooked<std::chrono::steady_clock::time_point()> hooked_{Hooks().now, [this] { return now_.load(); }};
};

class PeerThreadsTest : public testing::Test {
 protected:
  PeerThreadsTest() { PeerThreads::ForgetAllInChild(); }  // When an earlier test has logged a shortage.
  ~PeerThreadsTest() override { receivers_.EndAll(); }

  std::unique_ptr<PeerThreads> Make() {
    return std::make_unique<PeerThreads>(
        "db", [this](const FoundPlace& place, const std::shared_ptr<ActiveESNs>&) { receivers_.Run(place); },
        [](const FileDescriptor&, unsigned, const std::shared_ptr<ActiveESNs>&) {});
  }
  static void Find(PeerThreads& threads, unsigned short port) {
    threads.StartReceiver({INADDR_LOOPBACK, port}, threads.GetActiveESNs());
  }
  // Receives from the ports 1 to `count`.
  void Fill(PeerThreads& threads, std::size_t count = kRoom) {
    for (std::size_t port = 1; port <= count; ++port) Find(threads, static_cast<unsigned short>(port));
    EXPECT_TRUE(receivers_.Begin(count));
  }
  void End(PeerThreads& threads) {
    receivers_.EndAll();
    threads.AwaitAll();
  }
  std::vector<unsigned short> BegunAfterThoseThatFill() const {
    const std::vector<unsigned short> begun = receivers_.Begun();
    return {begun.begin() + kRoom, begun.end()};
  }

  StandingClock clock_;
  const DescriptorLimit descriptors_{128};
  LogRecorder log_;
  Receivers receivers_;
};

}  // namespace

TEST_F(PeerThreadsTest, ThreeEighthsOfTheDescriptorsMayBeReceivedFromAtOnce) {
  const auto threads = Make();

  Fill(*threads);
  EXPECT_THAT(log_.Tags(), IsEmpty());
  Find(*threads, 1000);

  EXPECT_THAT(log_.Lines("tblsvr.fnd.thread"), ElementsAre(LogLine{Varnix::LogLevel::Error, "tblsvr.fnd.thread",
                                                                   "TableServer: FoundPeer::thread error 11", ""}));
  EXPECT_THAT(receivers_.Begun(), Not(Contains(1000)));
  End(*threads);
}

TEST_F(PeerThreadsTest, NoMoreThan1024PeersAreReceivedFromAtOnce) {
  const DescriptorLimit descriptors(2736);  // Three eighths of it are more than 1,024.
  const auto threads = Make();

  Fill(*threads, 1024);
  EXPECT_THAT(log_.Tags(), IsEmpty());
  Find(*threads, 2000);

  EXPECT_THAT(log_.Lines("tblsvr.fnd.thread"), SizeIs(1));
  End(*threads);
}

TEST_F(PeerThreadsTest, PlaceForWhichThereIsNoRoomIsReceivedFromWhenAThreadHasEnded) {
  const auto threads = Make();
  Fill(*threads);
  Find(*threads, 1000);

  receivers_.End(1);

  EXPECT_TRUE(receivers_.Begin(kRoom + 1));
  EXPECT_EQ(receivers_.Begun().back(), 1000);
  End(*threads);
}

TEST_F(PeerThreadsTest, ThreadOfAnyServerMakesRoomForAPlaceThatWaits) {
  const auto one = Make();
  const auto other = Make();
  Fill(*one);
  Find(*other, 1000);

  receivers_.End(1);

  EXPECT_TRUE(receivers_.Begin(kRoom + 1));
  EXPECT_EQ(receivers_.Begun().back(), 1000);
  End(*one);
  End(*other);
}

TEST_F(PeerThreadsTest, PlacesWaitInTheOrderInWhichTheyWereFoundAndEachOnce) {
  const auto threads = Make();
  Fill(*threads);
  for (const int port : {1000, 1001, 1000, 1002}) Find(*threads, static_cast<unsigned short>(port));

  for (unsigned short port = 1; port <= 4; ++port) {
    receivers_.End(port);
    if (port < 4) {
      EXPECT_TRUE(receivers_.Begin(kRoom + port));
    }
  }
  Find(*threads, 1003);

  EXPECT_TRUE(receivers_.Begin(kRoom + 4));
  EXPECT_THAT(BegunAfterThoseThatFill(), ElementsAre(1000, 1001, 1002, 1003));
  End(*threads);
}

TEST_F(PeerThreadsTest, ServersTakeTurnsWithTheirPlacesThatWait) {
  const auto one = Make();
  const auto other = Make();
  Fill(*one);
  for (const int port : {1000, 1001, 1002}) Find(*one, static_cast<unsigned short>(port));
  for (const int port : {2000, 2001}) Find(*other, static_cast<unsigned short>(port));

  for (unsigned short port = 1; port <= 5; ++port) {
    receivers_.End(port);
    EXPECT_TRUE(receivers_.Begin(kRoom + port));
  }

  EXPECT_THAT(BegunAfterThoseThatFill(), ElementsAre(1000, 2000, 1001, 2001, 1002));
  End(*one);
  End(*other);
}

TEST_F(PeerThreadsTest, PlaceWaitsForLessThanThirtySeconds) {
  const auto threads = Make();
  Fill(*threads);
  Find(*threads, 1000);
  clock_.Advance(1ns);
  const auto found_at = clock_.Now();
  Find(*threads, 1001);

  clock_.Advance(30s - 1ns);
  receivers_.End(1);

  EXPECT_TRUE(receivers_.Begin(kRoom + 1));
  EXPECT_EQ(receivers_.LastFoundAt(), found_at);
  End(*threads);
  EXPECT_THAT(BegunAfterThoseThatFill(), ElementsAre(1001));
}

TEST_F(PeerThreadsTest, PlaceThatWaitsAndIsFoundAgainKeepsItsTurnAndWaitsAnew) {
  const auto threads = Make();
  Fill(*threads);
  for (const int port : {1000, 1001}) Find(*threads, static_cast<unsigned short>(port));
  clock_.Advance(20s);
  for (const int port : {1002, 1000}) Find(*threads, static_cast<unsigned short>(port));

  clock_.Advance(20s);
  for (unsigned short port = 1; port <= 2; ++port) {
    receivers_.End(port);
    EXPECT_TRUE(receivers_.Begin(kRoom + port));
  }

  EXPECT_THAT(BegunAfterThoseThatFill(), ElementsAre(1000, 1002));
  End(*threads);
}

TEST_F(PeerThreadsTest, BurstOfPlacesDelaysAnotherNoLongerThanTheFirstOfThemAreTried) {
  const auto threads = Make();
  Fill(*threads);
  for (unsigned short port = 10000; port < 12000; ++port) Find(*threads, port);
  clock_.Advance(1s);
  Find(*threads, 1000);

  clock_.Advance(29s);  // Now those that began at once are given up.
  receivers_.End(1);

  EXPECT_TRUE(receivers_.Begin(kRoom + 1));
  EXPECT_THAT(BegunAfterThoseThatFill(), ElementsAre(1000));
  End(*threads);
}

TEST_F(PeerThreadsTest, PlaceForWhichThereWasNoThreadIsTriedAgainAtTheNextPlace) {
  const auto threads = Make();
  {
    const Hooked start_thread(Hooks().start_thread, ThrowNoThread);
    Find(*threads, 1);
  }

  Find(*threads, 2);

  EXPECT_TRUE(receivers_.Begin(2));
  EXPECT_THAT(receivers_.Begun(), testing::UnorderedElementsAre(1, 2));
  End(*threads);
}

TEST_F(PeerThreadsTest, ShortageIsLoggedOnce) {
  const auto threads = Make();
  Fill(*threads);

  for (unsigned short port = 1000; port < 1100; ++port) {
    Find(*threads, port);
    clock_.Advance(100ms);
  }

  EXPECT_THAT(log_.Lines("tblsvr.fnd.thread"), SizeIs(1));
  End(*threads);
}

TEST_F(PeerThreadsTest, NextShortageIsLoggedAgain) {
  const auto threads = Make();
  Fill(*threads);
  Find(*threads, 1000);
  receivers_.End(1);
  EXPECT_TRUE(receivers_.Begin(kRoom + 1));
  clock_.Advance(100ms);

  Find(*threads, 1001);

  EXPECT_THAT(log_.Lines("tblsvr.fnd.thread"), SizeIs(2));
  End(*threads);
}

TEST_F(PeerThreadsTest, ShortagesOfAllServersAreLoggedAtMostOnceInAHundredMilliseconds) {
  const auto one = Make();
  const auto other = Make();
  Fill(*one);
  for (unsigned short shortage = 1; shortage <= 20; ++shortage) {
    Find(shortage % 2 == 0 ? *one : *other, static_cast<unsigned short>(1000 + shortage));
    receivers_.End(shortage);
    EXPECT_TRUE(receivers_.Begin(kRoom + shortage));
  }
  EXPECT_THAT(log_.Lines("tblsvr.fnd.thread"), SizeIs(1));

  clock_.Advance(100ms - 1ns);
  Find(*one, 2000);
  EXPECT_THAT(log_.Lines("tblsvr.fnd.thread"), SizeIs(1));
  clock_.Advance(1ns);
  Find(*one, 2001);

  EXPECT_THAT(log_.Lines("tblsvr.fnd.thread"), SizeIs(2));
  End(*one);
  End(*other);
}

TEST_F(PeerThreadsTest, ShortageEndsWithTheLastServerThatHasIt) {
  const Hooked start_thread(Hooks().start_thread, ThrowNoThread);
  const auto one = Make();
  Find(*one, 1000);
  one->AwaitAll();
  clock_.Advance(100ms);
  const auto next = Make();

  Find(*next, 1001);

  EXPECT_THAT(log_.Lines("tblsvr.fnd.thread"), SizeIs(2));
}

TEST_F(PeerThreadsTest, ShortageOfSendersIsLoggedOnceAndOnceInAHundredMilliseconds) {
  EXPECT_TRUE(PeerThreads::NoteSenderResult(EAGAIN));
  EXPECT_FALSE(PeerThreads::NoteSenderResult(EAGAIN));
  EXPECT_FALSE(PeerThreads::NoteSenderResult(0));
  EXPECT_FALSE(PeerThreads::NoteSenderResult(EAGAIN));

  clock_.Advance(100ms);

  EXPECT_TRUE(PeerThreads::NoteSenderResult(EAGAIN));
  clock_.Advance(100ms);
  EXPECT_FALSE(PeerThreads::NoteSenderResult(EAGAIN));
}

TEST_F(PeerThreadsTest, PlaceForWhichThereIsNoMemoryDoesNotWait) {
  const auto threads = Make();
  Fill(*threads);
  for (const long allocation : {2, 3}) {  // The first is for the thread.
    EXPECT_TRUE(RunsOutOfMemoryAt(allocation, [&] { Find(*threads, static_cast<unsigned short>(1000 + allocation)); }));
  }
  Find(*threads, 1004);

  receivers_.EndAll();

  EXPECT_TRUE(receivers_.Begin(kRoom + 1));
  threads->AwaitAll();
  EXPECT_THAT(BegunAfterThoseThatFill(), ElementsAre(1004));
  EXPECT_THAT(log_.Lines("tblsvr.fnd.thread"), SizeIs(1));
}

TEST_F(PeerThreadsTest, OfMoreThan1024PlacesOfAServerTheFirstDoNotWait) {
  const auto threads = Make();
  const auto other = Make();
  Fill(*threads);
  Find(*other, 500);
  for (unsigned short port = 1000; port < 1000 + 1026; ++port) Find(*threads, port);

  receivers_.EndAll();

  EXPECT_TRUE(receivers_.Begin(kRoom + 1 + 1024));
  threads->AwaitAll();
  other->AwaitAll();
  EXPECT_THAT(receivers_.Begun(), SizeIs(kRoom + 1 + 1024));
  EXPECT_THAT(receivers_.Begun(), AllOf(Contains(500), Not(Contains(1000)), Not(Contains(1001)), Contains(2025)));
}

TEST_F(PeerThreadsTest, OfMoreThan1024PlacesOfAServerTheOldGoBeforeTheFirst) {
  const auto threads = Make();
  Fill(*threads);
  for (unsigned short port = 1000; port < 1000 + 1024; ++port) Find(*threads, port);
  clock_.Advance(20s);
  Find(*threads, 1000);
  clock_.Advance(10s);
  Find(*threads, 3000);

  receivers_.EndAll();

  EXPECT_TRUE(receivers_.Begin(kRoom + 2));
  threads->AwaitAll();
  EXPECT_THAT(BegunAfterThoseThatFill(), testing::UnorderedElementsAre(1000, 3000));
}

TEST_F(PeerThreadsTest, EndForgetsThePlacesThatWait) {
  const auto one = Make();
  Fill(*one);
  const auto other = Make();
  Find(*other, 1000);

  other->AwaitAll();

  End(*one);
  EXPECT_THAT(receivers_.Begun(), SizeIs(kRoom));
}

TEST_F(PeerThreadsTest, EndReturnsWhenEveryThreadHasBeenJoined) {
  std::atomic<std::size_t> joined{0};
  const Hooked join(Hooks().pthread_join, [&](pthread_t thread, void** result) {
    const int error = Hooks().pthread_join.Real(thread, result);
    ++joined;
    return error;
  });
  const auto threads = Make();
  Fill(*threads);
  receivers_.EndAll();

  threads->AwaitAll();

  EXPECT_EQ(joined, kRoom);
}

TEST_F(PeerThreadsTest, ThreadsThatCouldNotStartTakeNoRoom) {
  const auto threads = Make();
  {
    const Hooked start_thread(Hooks().start_thread, ThrowNoThread);
    for (unsigned short port = 1000; port < 1100; ++port) Find(*threads, port);
  }
  receivers_.EndAll();

  Find(*threads, 1);

  EXPECT_TRUE(receivers_.Begin(101));
  threads->AwaitAll();
}

TEST_F(PeerThreadsTest, ExceptionThatLeavesAThreadEndsTheProcess) {
  const auto run = [] {
    PeerThreads threads(
        "db",
        [](const PeerPlace&, const std::shared_ptr<ActiveESNs>&) { throw std::runtime_error("thrown by the hook"); },
        nullptr);
    Find(threads, 1);
    threads.AwaitAll();
  };

  EXPECT_EXIT(run(), testing::KilledBySignal(SIGABRT), HasSubstr("thrown by the hook"));
}

#if !defined(VARNIX_EMULATED) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// An emulator and the sanitizers keep memory of their own for each thread.
namespace {

std::size_t PagesOfAddressSpace() {
  std::ifstream file("/proc/self/statm");
  std::size_t pages = 0;
  file >> pages;
  return pages;
}

}  // namespace

TEST_F(PeerThreadsTest, ThreadsThatHaveEndedKeepNoStacks) {
  const auto threads = Make();
  receivers_.EndAll();
  const std::size_t before = PagesOfAddressSpace();

  for (std::size_t count = 1; count <= 1000; ++count) {
    Find(*threads, 1);
    EXPECT_TRUE(receivers_.Begin(count));
  }
  threads->AwaitAll();

  // 1,000 stacks take 250 MiB; the C library keeps some 40 for the next threads.
  EXPECT_LT(PagesOfAddressSpace() - before, std::size_t{100} * 1024 * 1024 / 4096);
}
#endif

// Emulators abort where a child of a process with threads starts one. The thread sanitizer takes it for the parent's
// thread that had its stack.
#if !defined(VARNIX_EMULATED) && !defined(__SANITIZE_THREAD__)
TEST_F(PeerThreadsTest, ForkedChildHasRoomThoughItsParentHasNone) {
  const auto threads = Make();
  Fill(*threads);

  EXPECT_TRUE(HoldsInForkedChild([] {
    std::atomic<bool> received{false};
    PeerThreads own(
        "db", [&](const PeerPlace&, const std::shared_ptr<ActiveESNs>&) { received = true; },
        [](const FileDescriptor&, unsigned, const std::shared_ptr<ActiveESNs>&) {});
    Find(own, 1);
    own.AwaitAll();
    return received.load();
  }));
  End(*threads);
}
#endif
