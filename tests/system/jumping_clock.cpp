// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Stands before the C library's clocks, for the whole process: at each reading the date is ten years ahead or ten years
// behind, in turn. All other clocks are as they are.
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

namespace {

// Past the C library; with the type that the kernel has for a processor of this width.
struct KernelTime {
  long seconds;
  long nanoseconds;
};

KernelTime Read(clockid_t clock, int& result) {
  static std::atomic<unsigned> readings{0};
  constexpr unsigned long kTenYears = 10UL * 365 * 24 * 60 * 60;
  KernelTime now{};
  result = static_cast<int>(syscall(SYS_clock_gettime, clock, &now));
  if (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE) {
    // Without a sign, because seconds of 32 bits have no room for ten years more from 2028 on.
    const auto seconds = static_cast<unsigned long>(now.seconds);
    now.seconds = static_cast<long>(readings++ % 2 == 0 ? seconds + kTenYears : seconds - kTenYears);
  }
  return now;
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* time) noexcept {
  int result = 0;
  const KernelTime now = Read(clock, result);
  time->tv_sec = now.seconds;
  time->tv_nsec = now.nanoseconds;
  return result;
}

int gettimeofday(timeval* time, void*) noexcept {
  int result = 0;
  const KernelTime now = Read(CLOCK_REALTIME, result);
  time->tv_sec = now.seconds;
  time->tv_usec = now.nanoseconds / 1000;
  return result;
}

time_t time(time_t* copy) noexcept {
  int result = 0;
  const KernelTime now = Read(CLOCK_REALTIME, result);
  if (copy != nullptr) *copy = now.seconds;
  return now.seconds;
}

}  // extern "C"
