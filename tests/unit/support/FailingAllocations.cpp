// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "support/FailingAllocations.h"

#include <atomic>
#include <cstdlib>
#include <new>
#include <utility>

namespace {

thread_local Countdown countdown;
thread_local long live = 0;
thread_local bool spared = false;
std::atomic<const std::function<bool()>*> fails_elsewhere{nullptr};

bool FailsElsewhere() {
  const std::function<bool()>* const fails = spared ? nullptr : fails_elsewhere.load();
  return fails != nullptr && (*fails)();
}

}  // namespace

FailingAllocation::FailingAllocation(long n) : CountedFailure(countdown, n) {}

long LiveAllocations() { return live; }

void FailAllocationsOfOtherThreads(std::function<bool()> fails) {
  spared = true;
  fails_elsewhere = new std::function<bool()>(std::move(fails));
}

void* operator new(std::size_t size) {
  if (countdown.FailsNow() || FailsElsewhere()) throw std::bad_alloc();
  void* const memory = std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  ++live;
  return memory;
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept try {
  return operator new(size);
} catch (const std::bad_alloc&) {
  return nullptr;
}

void operator delete(void* memory) noexcept {
  if (memory != nullptr) --live;
  std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept { operator delete(memory); }
