// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "support/FailingLocks.h"
#include "support/SleepingThread.h"
#include "threads/Mutex.h"

TEST(MutexLock, SleepsInTheEndWhereItHasToWait) {
  Mutex mutex;
  std::atomic<pid_t> waiter_id{0};
  mutex.lock();
  std::thread waiter([&] {
    waiter_id = gettid();
    const MutexLock lock(mutex);
  });

  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  bool sleeps = false;
  while (!sleeps && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
    sleeps = waiter_id != 0 && StateOfThread(waiter_id) == 'S';
  }

  mutex.unlock();
  waiter.join();
  EXPECT_TRUE(sleeps);
}

TEST(MutexLock, ThrowsWhenTheLockFailsAndLeavesTheMutexFree) {
  Mutex mutex;

  EXPECT_TRUE(FailsToLockAt(1, [&] { const MutexLock lock(mutex); }));

  EXPECT_TRUE(std::unique_lock<std::mutex>(mutex, std::try_to_lock).owns_lock());
}
