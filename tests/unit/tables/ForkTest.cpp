// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/ForkedChild.h"
#include "support/SleepingThread.h"
#include "tables/LWatcherSet.h"
#include "tables/LocalTableRegistry.h"

namespace {

using Clock = std::chrono::steady_clock;

// A set in which threads of this process wait, and what it watches.
class Fork : public testing::Test {
 protected:
  Fork() {
    for (std::optional<SleepingThread>& thread : waiting_) {
      thread.emplace([set = set_.get()] { set->Wait(); });
    }
  }
  ~Fork() override {
    for (int i = 0; i < kWaiting; ++i) table_->Set({"end of " + std::to_string(i), ""});
  }

  // Whether a thread that waits in the set gets the row that another sets, each time.
  bool HandsOverRows(int count) {
    for (int time = 0; time < count; ++time) {
      const Varnix::Row row("k", std::to_string(time));
      Varnix::Row got;
      {
        const SleepingThread waiter([&] { got = set_->WaitUntil(Clock::now() + std::chrono::seconds(10)).first; });
        table_->Set(row);
      }
      if (got != row) return false;
    }
    return true;
  }

  static constexpr int kWaiting = 3;

  std::shared_ptr<Varnix::Table> table_ = Varnix::MakeTable("t");
  std::shared_ptr<Varnix::WatcherSet> set_ = Varnix::MakeWatcherSet({table_->WatchAll()});
  std::optional<SleepingThread> waiting_[kWaiting];
};

}  // namespace

#if !defined(VARNIX_EMULATED)  // An emulator need not stand a fork by another thread than the first.
TEST(ForkWhileATableIsRegistered, LeavesTheChildARegistryThatItCanUse) {
  bool usable = false;
  LocalTableRegistry::Lock();  // As the thread does that makes the table.
  {
    const SleepingThread forker(
        [&] { usable = HoldsInForkedChild([] { return Varnix::MakeTable("of the child") != nullptr; }); });
    LocalTableRegistry::Unlock();
  }

  EXPECT_TRUE(usable);
}
#endif

#if !defined(VARNIX_EMULATED)  // Emulators abort where a child of a process with threads starts one.
TEST_F(Fork, LeavesTheChildASetThatWakesItsThreadsThoughTheParentWaitsInIt) {
  EXPECT_TRUE(HoldsInForkedChild([this] { return HandsOverRows(100); }));
}
#endif

TEST_F(Fork, LeavesTheChildASetThatItCanDropThoughTheParentWaitsInIt) {
  EXPECT_TRUE(HoldsInForkedChild([this] {
    set_.reset();
    table_->Set({"k", "v"});
    return table_->WatchAll()->GetChanges() == std::vector<Varnix::Row>{{"k", "v"}};
  }));
}

TEST_F(Fork, LeavesTheParentAsItWas) {
  EXPECT_TRUE(HoldsInForkedChild([this] {
    table_->Set({"k", "of the child"});
    return true;
  }));

  EXPECT_EQ(set_->WaitUntil(Clock::time_point()).second, nullptr);
}

// Emulators abort where a child of a process with threads starts one. The address sanitizer's allocator stays locked in
// the child if another thread is inside it at the fork.
#if !defined(VARNIX_EMULATED) && !defined(__SANITIZE_ADDRESS__)
TEST_F(Fork, HappensAnyTimeWhileOtherThreadsSetRowsAndWait) {
  std::atomic<bool> done{false};
  const Varnix::Row rows[] = {{"k", "even"}, {"k", "odd"}};
  std::thread setter([&] {
    for (std::size_t i = 0; !done; ++i) table_->Set(rows[i % 2]);
  });
  std::thread reader([&] {
    while (!done) set_->WaitUntil(Clock::now() + std::chrono::milliseconds(1));
  });

  for (int child = 0; child < 10; ++child) {
    EXPECT_TRUE(HoldsInForkedChild([this] {
      while (set_->WaitUntil(Clock::time_point()).second != nullptr) continue;  // What the setter had set.
      return HandsOverRows(5);
    }));
  }

  done = true;
  setter.join();
  reader.join();
}
#endif
