#pragma once

#include <functional>

// Makes the n-th allocation of this thread, counted from 1, fail while this object lives.
class FailingAllocation {
 public:
  explicit FailingAllocation(long n);
  ~FailingAllocation();
  FailingAllocation(const FailingAllocation&) = delete;
  FailingAllocation& operator=(const FailingAllocation&) = delete;

  bool HasFailed() const;
};

// How many allocations of this thread have not been freed, less what it has freed for other threads.
long LiveAllocations();

// From now on `fails` decides of each allocation of every thread but this one. Once in a process.
void FailAllocationsOfOtherThreads(std::function<bool()> fails);
