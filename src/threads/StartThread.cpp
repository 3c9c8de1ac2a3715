// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "threads/StartThread.h"

#include <pthread.h>

#include <cerrno>
#include <cstddef>

namespace {

// Ample for our frames and a log hook. The usual 8 MiB would be too much: a 32-bit process has no room for hundreds of
// those.
constexpr std::size_t kStackSize = std::size_t{256} * 1024;
constexpr std::size_t kLargeStackSize = std::size_t{8} * 1024 * 1024;

}  // namespace

int StartThread(void* (*body)(void*), void* argument) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, kStackSize);
  pthread_t thread;
  int error = pthread_create(&thread, &attributes, body, argument);
  if (error == EINVAL) {  // The program's thread-local objects alone need more.
    pthread_attr_setstacksize(&attributes, kLargeStackSize);
    error = pthread_create(&thread, &attributes, body, argument);
  }
  pthread_attr_destroy(&attributes);
  return error;
}
