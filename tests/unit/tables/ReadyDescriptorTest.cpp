// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>

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
#include "support/FailingAllocations.h"
#include "support/ForkedChild.h"
#include "support/Tables.h"
#include "tables/ReadyDescriptor.h"

namespace {

using Varnix::GetDescriptor;
using Varnix::Row;
using Clock = std::chrono::steady_clock;

constexpr Clock::time_point kPast{};

bool IsReadable(int descriptor) {
  pollfd entry = {descriptor, POLLIN, 0};
  return poll(&entry, 1, 0) == 1 && entry.revents == POLLIN;
}

bool IsOpen(int descriptor) { return fcntl(descriptor, F_GETFD) >= 0; }

class ForeignSet final : public Varnix::WatcherSet {
 public:
  std::pair<Row, std::shared_ptr<Varnix::Watcher>> Wait() override { return {}; }
  std::pair<Row, std::shared_ptr<Varnix::Watcher>> WaitUntil(const Clock::time_point&) override { return {}; }
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
  const int descriptor = GetDescriptor(set_);
  std::atomic<int> setting{2};
  std::vector<std::thread> setters, takers;
  for (int name = 0; name < 2; ++name) {
    setters.emplace_back([&, name] {
      for (int i = 0; i < 5000; ++i) table_->Set({i % 2 ? "k" : std::to_string(name), std::to_string(i)});
      --setting;
    });
    // As an event loop: a wake-up that is lost leaves it waiting, one that lasts leaves it nothing to take.
    takers.emplace_back([&] {
      while (setting > 0 || IsReadable(descriptor)) {
        pollfd entry = {descriptor, POLLIN, 0};
        poll(&entry, 1, 1);
        while (set_->WaitUntil(kPast).second != nullptr) continue;
      }
    });
  }
  for (std::thread& thread : setters) thread.join();
  for (std::thread& thread : takers) thread.join();

  EXPECT_EQ(set_->WaitUntil(kPast).second, nullptr);
  EXPECT_FALSE(IsReadable(descriptor));
  table_->Set({"k", "last"});
  EXPECT_TRUE(IsReadable(descriptor));
}

TEST_F(ReadyDescriptorTest, IsThereForTenThousandSets) {
  constexpr std::size_t kSets = 10'000;
  const DescriptorLimit enough(kSets + 100);
  std::vector<std::shared_ptr<Varnix::WatcherSet>> sets;
  for (std::size_t i = 0; i < kSets; ++i) {
    sets.push_back(Varnix::MakeWatcherSet({table_->Watch(std::to_string(i))}));
    ASSERT_GE(GetDescriptor(sets.back()), 0) << i;
  }

  table_->Set({"77", "1"});

  for (std::size_t i = 0; i < kSets; ++i) EXPECT_EQ(IsReadable(GetDescriptor(sets[i])), i == 77) << i;
}
