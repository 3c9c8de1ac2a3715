// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <functional>
#include <new>

#include "support/Countdown.h"

// Makes the n-th allocation of this thread, counted from 1, fail while this object lives.
class FailingAllocation : public CountedFailure {
 public:
  explicit FailingAllocation(long n);
};

// Whether the call had an n-th allocation, which failed. What it then throws is caught.
template <class Call>
bool RunsOutOfMemoryAt(long n, Call call) {
  const FailingAllocation failing(n);
  try {
    call();
  } catch (const std::bad_alloc&) {
  }
  return failing.HasFailed();
}

// How many allocations of this thread have not been freed, less what it has freed for other threads.
long LiveAllocations();

// How many more there are after the call than before.
template <class Call>
long LeavesAllocated(Call call) {
  const long before = LiveAllocations();
  call();
  return LiveAllocations() - before;
}

// From now on `fails` decides of each allocation of every thread but this one. Once in a process.
void FailAllocationsOfOtherThreads(std::function<bool()> fails);
