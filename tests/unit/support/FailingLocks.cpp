// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "support/FailingLocks.h"

#include <pthread.h>

#include <cerrno>

// The linker's --wrap sends each call of this program to __wrap_X and leaves the real one as __real_X. Not one of the
// hooks of SystemCallHooks.h: those take a lock themselves.

namespace {

thread_local long countdown = 0;  // 0: none fails.
thread_local bool has_failed = false;

}  // namespace

FailingLock::FailingLock(long n) {
  has_failed = false;
  countdown = n;
}

FailingLock::~FailingLock() { countdown = 0; }

bool FailingLock::HasFailed() const { return has_failed; }

extern "C" {

int __real_pthread_mutex_lock(pthread_mutex_t*);
int __real_pthread_mutex_trylock(pthread_mutex_t*);

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
  if (countdown == 0 || --countdown > 0) return __real_pthread_mutex_lock(mutex);
  has_failed = true;
  return EDEADLK;
}

int __wrap_pthread_mutex_trylock(pthread_mutex_t* mutex) {
  if (countdown == 1) return EBUSY;
  const int error = __real_pthread_mutex_trylock(mutex);
  if (error == 0 && countdown > 0) --countdown;
  return error;
}

}  // extern "C"
