// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <poll.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>

// Two servers that meet, hand rows over, restart and stop, in a process of their own, while something fails.

// Which of the calls that it is asked about fail: the one of this number, counted from 1, or all from that one on. "For
// ever" is a while: a call that is always interrupted holds up a stop.
class Fault {
 public:
  Fault(long first, bool for_ever) : first_(first), for_ever_(for_ever) {}

  bool Strikes();
  bool HasStruck() const { return struck_; }
  void End() { over_ = true; }

 private:
  using Clock = std::chrono::system_clock;  // No call of it fails.

  const long first_;
  const bool for_ever_;
  std::atomic<long> calls_{0};
  std::atomic<bool> struck_{false};
  std::atomic<bool> over_{false};
  std::atomic<Clock::time_point> end_{Clock::time_point::max()};
};

// Of the line that is logged before a server is stopped and started again.
constexpr char kRestartTag[] = "test.restart";

enum Ending { kConverged, kFewerCalls, kNotConverged, kDescriptorLeft, kThreadLeft, kMemoryLeft };

// How one process ended: an Ending is its exit status. And what it said, for the case that it should not have.
struct Outcome {
  int status;
  std::string errors;
};

// `inject` runs in the new process before the servers start. While the fault lasts, nobody waits longer than `patience`
// for a row.
Outcome RunTwoServers(long first, bool for_ever, std::chrono::milliseconds patience,
                      const std::function<void(Fault&)>& inject);

// How much a test tries: under an emulator, as a rule, or in the soak.
inline long ByPatience([[maybe_unused]] long emulated, [[maybe_unused]] long usual, long soak) {
  if (std::getenv("VARNIX_SOAK") != nullptr) return soak;
#if defined(VARNIX_EMULATED)
  return emulated;
#else
  return usual;
#endif
}

// For the hook of poll(): a second of the receive loop's pauses goes by in ten milliseconds. Set in each such process.
int PollQuickly(pollfd* entries, nfds_t count, int time_out);
