// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/DescriptorLimit.h"
#include "support/Descriptors.h"
#include "support/FailingAllocations.h"
#include "support/ForkedChild.h"
#include "support/Tables.h"
#include "tables/ReadyDescriptor.h"

namespace {

using Varnix::GetDescriptor;
using Varnix::Row;
using Clock = std::chrono::steady_clock;

constexpr Clock::time_point kPast{};

class ForeignSet final : public Varnix::WatcherSet {
 public:
  std::pair<Row, std::shared_ptr<Varnix::Watcher>> Wait() override { return {}; }
  std::pair<Row, std::shared_ptr<Varnix::Watcher>> WaitUntil(const Clock::time_point&) override { return {}; }
};

// Once nobody sets a row any more: a wake-up that was lost leaves a change without one, and one that lasts is seen for
// ever, which the deadline of a minute ends.
bool AgreesWhenAllIsTaken(Varnix::WatcherSet& set, int descriptor) {
  const auto deadline = Clock::now() + std::chrono::minutes(1);
  while (IsReadable(descriptor)) {
    if (Clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return set.WaitUntil(kPast).second == nullptr;
}

// Threads that take the changes of a set as event loops do: they sleep in poll(), and take only when it says so.
class Loops {
 public:
  Loops(Varnix::WatcherSet& set, int descriptor, int count) {
    for (int i = 0; i < count; ++i) {
      threads_.emplace_back([this, &set, descriptor] {
        pollfd entries[] = {{descriptor, POLLIN, 0}, {end_, POLLIN, 0}};
        while (poll(entries, 2, -1) > 0 && entries[1].revents == 0) {
          while (set.WaitUntil(kPast).second != nullptr) continue;
        }
      });
    }
  }
  ~Loops() {
    eventfd_write(end_, 1);
    for (std::thread& thread : threads_) thread.join();
    close(end_);
  }
  Loops(const Loops&) = delete;
  Loops& operator=(const Loops&) = delete;

 private:
  const int end_ = eventfd(0, EFD_CLOEXEC);
  std::vector<std::thread> threads_;
};

class ReadyDescriptorTest : public testing::Test {
 protected:
  const std::shared_ptr<Varnix::Table> table_ = Varnix::MakeTable("t");
  const std::shared_ptr<Varnix::Watcher> key_watcher_ = table_->Watch("k");
  const std::shared_ptr<Varnix::WatcherSet> set_ = Varnix::MakeWatcherSet({key_watcher_, table_->WatchAll()});
};

}  // namespace

TEST_F(ReadyDescriptorTest, IsReadableUntilTheLastOfTheChangesIsTaken) {
  const int descriptor = GetDescriptor(set_);
  EXPECT_FALSE(IsReadable(descriptor));

  table_->Set({"k", "1"});
  table_->Set({"k", "2"});
  table_->Set({"other", "3"});

  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(IsReadable(descriptor)) << i;
    EXPECT_NE(set_->WaitUntil(kPast).second, nullptr) << i;
  }
  EXPECT_FALSE(IsReadable(descriptor));
}

TEST_F(ReadyDescriptorTest, IsReadableAtOnceWhenAChangeIsThereAlready) {
  table_->Set({"k", "1"});

  EXPECT_TRUE(IsReadable(GetDescriptor(set_)));
}

TEST_F(ReadyDescriptorTest, IsTheSameAtEachCallAndClosedOnExec) {
  const int descriptor = GetDescriptor(set_);

  EXPECT_EQ(GetDescriptor(set_), descriptor);
  EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC);
}

TEST_F(ReadyDescriptorTest, IsNotReadableWhenTheWatcherItselfHasBeenRead) {
  const auto set = Varnix::MakeWatcherSet({key_watcher_});
  const int descriptor = GetDescriptor(set);
  table_->Set({"k", "1"});

  key_watcher_->GetChanges();

  EXPECT_FALSE(IsReadable(descriptor));
}

TEST_F(ReadyDescriptorTest, FollowsASetWhoseChangesAnotherSetTakes) {
  const auto other = Varnix::MakeWatcherSet({key_watcher_});
  const int descriptor = GetDescriptor(other);
  table_->Set({"k", "1"});
  EXPECT_TRUE(IsReadable(descriptor));

  while (set_->WaitUntil(kPast).second != nullptr) continue;

  EXPECT_FALSE(IsReadable(descriptor));
}

TEST_F(ReadyDescriptorTest, LetsItsSetWakeThreadsAsBefore) {
  GetDescriptor(set_);
  std::thread setter([this] { table_->Set({"k", "1"}); });

  EXPECT_EQ(set_->Wait().first, Row("k", "1"));

  setter.join();
}

TEST_F(ReadyDescriptorTest, IsClosedWithItsSetWhoseWatchersGoOn) {
  auto set = Varnix::MakeWatcherSet({key_watcher_});
  const int descriptor = GetDescriptor(set);

  set.reset();

  EXPECT_FALSE(IsOpen(descriptor));
  table_->Set({"k", "1"});
  EXPECT_EQ(key_watcher_->GetChanges().size(), 1U);
}

TEST_F(ReadyDescriptorTest, IsRefusedToSetsThatAreNotOfThisLibrary) {
  for (const std::shared_ptr<Varnix::WatcherSet>& set :
       {std::shared_ptr<Varnix::WatcherSet>(), std::shared_ptr<Varnix::WatcherSet>(new ForeignSet)}) {
    errno = 0;
    EXPECT_EQ(GetDescriptor(set), -1);
    EXPECT_EQ(errno, EINVAL);
  }
}

TEST_F(ReadyDescriptorTest, CanBeHadLaterWhenThereIsNoneNow) {
  {
    const DescriptorLimit none(0);
    errno = 0;
    EXPECT_EQ(GetDescriptor(set_), -1);
    EXPECT_EQ(errno, EMFILE);
  }
  table_->Set({"k", "1"});

  EXPECT_TRUE(IsReadable(GetDescriptor(set_)));
}

TEST_F(ReadyDescriptorTest, CanBeHadLaterWhenThereIsNoMemoryNow) {
  EXPECT_TRUE(RunsOutOfMemoryAt(1, [this] { GetDescriptor(set_); }));
  table_->Set({"k", "1"});

  EXPECT_TRUE(IsReadable(GetDescriptor(set_)));
}

TEST_F(ReadyDescriptorTest, IsAnotherInAForkedChildAndTellsItOfItsOwnChangesOnly) {
  const int descriptor = GetDescriptor(set_);

  EXPECT_TRUE(HoldsInForkedChild([&] {
    if (IsOpen(descriptor)) return false;
    const int own = GetDescriptor(set_);
    const bool was_readable = IsReadable(own);
    table_->Set({"k", "1"});
    return !was_readable && IsReadable(own);
  }));

  EXPECT_FALSE(IsReadable(descriptor));
}

TEST_F(ReadyDescriptorTest, AgreesWithItsSetWhileThreadsSetAndTake) {
  const Loops loops(*set_, GetDescriptor(set_), 2);
  std::vector<std::thread> threads;
  for (const char* name : {"a", "b"}) {
    threads.emplace_back([&, name] {
      for (int i = 0; i < 20000; ++i) table_->Set({i % 2 ? "k" : name, std::to_string(i)});
    });
  }
  threads.emplace_back([&] {  // Takes changes between the poll of a loop and its drain.
    for (int i = 0; i < 20000; ++i) key_watcher_->GetChanges();
  });
  for (std::thread& thread : threads) thread.join();

  EXPECT_TRUE(AgreesWhenAllIsTaken(*set_, GetDescriptor(set_)));
  table_->Set({"k", "last"});
  EXPECT_TRUE(AgreesWhenAllIsTaken(*set_, GetDescriptor(set_)));
}

TEST_F(ReadyDescriptorTest, LetsManyWaitersOfEachKindTakeEachChangeOnce) {
  constexpr int kWaiters = 16;
  constexpr int kRows = 2000;
  const auto set = Varnix::MakeWatcherSet({table_->WatchAll()});
  const int descriptor = GetDescriptor(set);
  std::atomic<int> taken{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < kWaiters; ++i) {
    // Each ends with the end that it takes, and leaves to others what is pending then.
    waiters.emplace_back([&, by_poll = i % 2 == 0] {
      for (;;) {
        if (by_poll) AwaitInput(descriptor, -1);
        const auto change = by_poll ? set->WaitUntil(kPast) : set->Wait();
        if (change.second == nullptr) continue;
        if (change.first.second == "end") return;
        ++taken;
      }
    });
  }

  for (int i = 0; i < kRows; ++i) table_->Set({std::to_string(i), "v"});
  for (int i = 0; i < kWaiters; ++i) table_->Set({"end " + std::to_string(i), "end"});
  for (std::thread& waiter : waiters) waiter.join();

  EXPECT_EQ(taken, kRows);
  EXPECT_FALSE(IsReadable(descriptor));
}

#if !defined(VARNIX_EMULATED)  // Emulators may abort where a process with busy threads forks.
TEST_F(ReadyDescriptorTest, AgreesWithItsSetInTheParentAndInForkedChildren) {
  // Short strings need no memory: the lock of the address sanitizer's allocator would stay locked in the child.
  const Row rows[] = {{"k", "even"}, {"k", "odd"}};
  const Loops loops(*set_, GetDescriptor(set_), 2);
  std::atomic<bool> done{false};
  std::thread setter([&] {
    for (std::size_t i = 0; !done; ++i) table_->Set(rows[i % 2]);
  });

  for (int child = 0; child < 20; ++child) {
    EXPECT_TRUE(HoldsInForkedChild([&] {
      const int own = GetDescriptor(set_);
      while (set_->WaitUntil(kPast).second != nullptr) {
        if (!IsReadable(own) && set_->WaitUntil(kPast).second != nullptr) return false;
      }
      const bool was_readable = IsReadable(own);
      table_->Set({"k", "child"});
      return !was_readable && IsReadable(own);
    }));
  }
  done = true;
  setter.join();

  EXPECT_TRUE(AgreesWhenAllIsTaken(*set_, GetDescriptor(set_)));
}
#endif

TEST_F(ReadyDescriptorTest, TellsALoopOfTenThousandSetsOfEachChangeThoughOthersTakeSome) {
  constexpr std::size_t kSets = 10'000;
  const DescriptorLimit enough(kSets + 100);
  const int epoll = epoll_create1(EPOLL_CLOEXEC);
  std::vector<std::shared_ptr<Varnix::Watcher>> watchers;
  std::vector<std::shared_ptr<Varnix::WatcherSet>> sets;
  const auto end = table_->Watch("end");
  for (std::size_t i = 0; i < kSets; ++i) {
    watchers.push_back(table_->Watch(std::to_string(i)));
    sets.push_back(Varnix::MakeWatcherSet({watchers.back(), i == 0 ? end : nullptr}));
    epoll_event event = {EPOLLIN, {sets.back().get()}};
    ASSERT_EQ(epoll_ctl(epoll, EPOLL_CTL_ADD, GetDescriptor(sets.back()), &event), 0) << i;
  }
  epoll_event ready[2];
  EXPECT_EQ(epoll_wait(epoll, ready, 2, 0), 0);
  table_->Set({"77", "first"});
  ASSERT_EQ(epoll_wait(epoll, ready, 2, 0), 1);
  EXPECT_EQ(ready[0].data.ptr, sets[77].get());

  std::thread taker([&] {
    for (std::size_t i = 0; i < 3 * kSets; ++i) watchers[i * 7 % kSets]->GetChanges();
  });
  std::thread loop([&] {
    for (bool ended = false; !ended;) {
      epoll_event events[64];
      const int count = epoll_wait(epoll, events, 64, -1);
      for (int i = 0; i < count; ++i) {
        auto& set = *static_cast<Varnix::WatcherSet*>(events[i].data.ptr);
        for (auto next = set.WaitUntil(kPast); next.second != nullptr; next = set.WaitUntil(kPast)) {
          if (next.second == end) ended = true;
        }
      }
    }
  });

  for (std::size_t i = 0; i < 3 * kSets; ++i) table_->Set({std::to_string(i % kSets), std::to_string(i)});
  taker.join();
  table_->Set({"end", ""});
  loop.join();

  // What the loop has left when it ended is readable, and nothing else.
  for (const auto& set : sets) {
    const bool was_readable = IsReadable(GetDescriptor(set));
    EXPECT_EQ(was_readable, set->WaitUntil(kPast).second != nullptr);
  }
  EXPECT_EQ(epoll_wait(epoll, ready, 2, 0), 0);
  close(epoll);
}
