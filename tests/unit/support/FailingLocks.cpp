// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "support/FailingLocks.h"

#include <pthread.h>

#include <cerrno>

// The linker's --wrap sends each call of this program to __wrap_X and leaves the real one as __real_X. Not one of the
// hooks of SystemCallHooks.h: those take a lock themselves.

namespace {

thread_local Countdown countdown;

}  // namespace

FailingLock::FailingLock(long n) : CountedFailure(countdown, n) {}

extern "C" {

int __real_pthread_mutex_lock(pthread_mutex_t*);
int __real_pthread_mutex_trylock(pthread_mutex_t*);

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
  return countdown.FailsNow() ? EDEADLK : __real_pthread_mutex_lock(mutex);
}

int __wrap_pthread_mutex_trylock(pthread_mutex_t* mutex) {
  if (countdown.left == 1) return EBUSY;
  const int error = __real_pthread_mutex_trylock(mutex);
  if (error == 0 && countdown.left > 0) --countdown.left;
  return error;
}

}  // extern "C"
