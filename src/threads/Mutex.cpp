// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "threads/Mutex.h"

namespace {

// Tells the processor that it is in a loop that waits.
void RelaxProcessor() {
#if defined(__i386__) || defined(__x86_64__)
  __builtin_ia32_pause();
#elif defined(__aarch64__) || (defined(__ARM_ARCH) && __ARM_ARCH >= 7)
  __asm__ __volatile__("yield");
#endif
}

}  // namespace

void LockContended(std::unique_lock<std::mutex>& lock) {
  // The tries take some microseconds. Most holders release the lock sooner, and to sleep and be woken takes longer. On
  // a single processor the tries are useless: the holder runs only while this thread sleeps.
  constexpr int kTries = 200;
  for (int tried = 0; tried < kTries; ++tried) {
    RelaxProcessor();
    if (lock.try_lock()) return;
  }
  lock.lock();
}
