// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <gtest/gtest.h>

#include <system_error>

#include "support/Countdown.h"

// While this object lives, the n-th lock that this thread takes (from 1) fails: pthread_mutex_trylock() returns EBUSY,
// pthread_mutex_lock() EDEADLK. Only locks that the program's own code takes count, not those within the system's
// libraries.
class FailingLock : public CountedFailure {
 public:
  explicit FailingLock(long n);
};

// Whether the call had an n-th lock, which failed. It has to throw that.
template <class Call>
bool FailsToLockAt(long n, Call call) {
  bool thrown = false;
  bool failed = false;
  {
    const FailingLock failing(n);
    try {
      call();
    } catch (const std::system_error& error) {
      thrown = error.code() == std::errc::resource_deadlock_would_occur;
    }
    failed = failing.HasFailed();
  }
  EXPECT_EQ(thrown, failed) << "at lock " << n;  // EXPECT_EQ takes locks, too.
  return failed;
}
