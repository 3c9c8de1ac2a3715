#include "FailingAllocations.h"

#include <cstdlib>
#include <new>

namespace {

thread_local long left = 0;  // 0: none fails.
thread_local bool failed = false;

}  // namespace

FailingAllocation::FailingAllocation(long n) {
  failed = false;
  left = n;
}

FailingAllocation::~FailingAllocation() { left = 0; }

bool FailingAllocation::HasFailed() const { return failed; }

void* operator new(std::size_t size) {
  if (left > 0 && --left == 0) {
    failed = true;
    throw std::bad_alloc();
  }
  if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}

void operator delete(void* memory) noexcept { std::free(memory); }

void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
