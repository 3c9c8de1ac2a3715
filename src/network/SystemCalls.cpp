// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "network/SystemCalls.h"

#include <pthread.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "logging/Log.h"

void LogErrnoAndAbort(const char* tag, const char* format) {
  try {
    Log(Varnix::LogLevel::Error, tag, format, errno);
  } catch (...) {
    // There is nothing to go on with, whatever the hook throws.
  }
  std::abort();
}

int PollAgainAfterSignals(pollfd* entries, nfds_t count, int time_out) {
  int ready;
  do {
    ready = poll(entries, count, time_out);
  } while (ready < 0 && errno == EINTR);
  return ready;
}

int PollForInput(int descriptor, std::chrono::milliseconds time_out) {
  pollfd entry = {descriptor, POLLIN, 0};
  return poll(&entry, 1, static_cast<int>(time_out.count()));
}

void NameThisThread(const char* what, const char* database) {
  char name[16];  // All that the kernel keeps.
  std::snprintf(name, sizeof name, "%s:%s", what, database);
  pthread_setname_np(pthread_self(), name);  // A thread without a name works as well.
}
