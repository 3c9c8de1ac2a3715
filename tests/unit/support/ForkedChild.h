// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>

// The thread sanitizer takes a child's thread for that of the parent whose stack it gets. None is large enough for
// this.
inline void TakeNewStacksForThreads() {
#if defined(__SANITIZE_THREAD__)
  pthread_attr_t attributes;
  std::size_t size = 0;
  pthread_getattr_default_np(&attributes);
  pthread_attr_getstacksize(&attributes, &size);
  pthread_attr_setstacksize(&attributes, 2 * size);
  pthread_setattr_default_np(&attributes);
  pthread_attr_destroy(&attributes);
#endif
}

// Whether `body` returns true in a forked child. One that hangs is ended after a minute, which only bounds a failing
// run.
template <class Body>
bool HoldsInForkedChild(Body body) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(60);
    TakeNewStacksForThreads();
    _exit(body() ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  return status == 0;
}
