// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "support/ForkedChild.h"
#include "support/SleepingThread.h"
#include "threads/Condition.h"

namespace {

constexpr int kTimes = 100;

// A flag to wait for, and threads that wait for it.
class ConditionTest : public testing::Test {
 protected:
  ~ConditionTest() override { EndWaiting(); }

  void HaveWaitingThreads() {
    for (std::optional<SleepingThread>& thread : waiting_) {
      thread.emplace([this] {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!ended_) condition_->Wait(lock);
      });
    }
  }

  void EndWaiting() {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      ended_ = true;
      for (int i = 0; i < kWaiting; ++i) condition_->NotifyOne();
    }
    for (std::optional<SleepingThread>& thread : waiting_) thread.reset();
  }

  // Whether a thread that sleeps until a flag is set is woken, each time.
  bool WakesASleeper() {
    for (int time = 0; time < kTimes; ++time) {
      bool flag = false;
      bool woken = false;
      {
        const SleepingThread sleeper([&] {
          const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
          std::unique_lock<std::mutex> lock(mutex_);
          while (!flag && std::chrono::steady_clock::now() < deadline) condition_->WaitUntil(lock, deadline);
          woken = std::chrono::steady_clock::now() < deadline;
        });
        const std::lock_guard<std::mutex> lock(mutex_);
        flag = true;
        condition_->NotifyOne();
      }
      if (!woken) return false;
    }
    return true;
  }

  static constexpr int kWaiting = 3;

  std::mutex mutex_;
  std::unique_ptr<Condition> condition_ = std::make_unique<Condition>();
  bool ended_ = false;
  std::optional<SleepingThread> waiting_[kWaiting];
};

}  // namespace

TEST_F(ConditionTest, WakesASleeperAmongThoseThatSleepOn) { EXPECT_TRUE(WakesASleeper()); }

#if !defined(VARNIX_EMULATED)  // Emulators abort where a child of a process with threads starts one.
TEST_F(ConditionTest, WakesASleeperInAChildThoughThreadsOfTheParentWait) {
  HaveWaitingThreads();

  EXPECT_TRUE(HoldsInForkedChild([this] { return WakesASleeper(); }));
}

TEST_F(ConditionTest, WakesASleeperInAGrandchildThoughThreadsOfTheChildWait) {
  EXPECT_TRUE(HoldsInForkedChild([this] {
    HaveWaitingThreads();
    const bool woken = HoldsInForkedChild([this] { return WakesASleeper(); });
    EndWaiting();
    return woken;
  }));
}
#endif

TEST_F(ConditionTest, IsDestroyedInAChildThoughThreadsOfTheParentWait) {
  HaveWaitingThreads();

  EXPECT_TRUE(HoldsInForkedChild([this] {
    condition_.reset();
    return true;
  }));
}

TEST_F(ConditionTest, WakesThoseWhoWaitAfterAForkAsBefore) {
  HaveWaitingThreads();
  EXPECT_TRUE(HoldsInForkedChild([] { return true; }));

  EndWaiting();  // Joins them.
}
