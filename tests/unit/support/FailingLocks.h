// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <gtest/gtest.h>

#include <system_error>

// Makes the n-th lock that this thread takes, counted from 1, fail while this object lives: to try finds the mutex
// taken, and to wait for it is a deadlock. Only locks that the program's own code takes count, not those within the
// system's libraries.
class FailingLock {
 public:
  explicit FailingLock(long n);
  ~FailingLock();
  FailingLock(const FailingLock&) = delete;
  FailingLock& operator=(const FailingLock&) = delete;

  bool HasFailed() const;
};

// Whether the call had an n-th lock, which failed. It has to throw that.
template <class Call>
bool FailsToLockAt(long n, Call call) {
  const FailingLock failing(n);
  bool thrown = false;
  try {
    call();
  } catch (const std::system_error& error) {
    thrown = error.code() == std::errc::resource_deadlock_would_occur;
  }
  EXPECT_EQ(thrown, failing.HasFailed()) << "at lock " << n;
  return failing.HasFailed();
}
