// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// What the library for C costs beside that of C++, and the descriptor of a set beside a bare eventfd. Both sides of a
// comparison take turns, and of many rounds the best counts.
#include <Varnix.h>
#include <poll.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "Check.h"

namespace {

double NanosecondsOf(int count, const std::function<void(int)>& step) {
  const auto begin = std::chrono::steady_clock::now();
  step(count);
  return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - begin).count() / count;
}

struct Times {
  double ours = 1e9;
  double theirs = 1e9;
};

Times Compare(int rounds, int count, const std::function<void(int)>& ours, const std::function<void(int)>& theirs) {
  Times best;
  for (int round = 0; round < rounds; ++round) {
    best.ours = std::min(best.ours, NanosecondsOf(count, ours));
    best.theirs = std::min(best.theirs, NanosecondsOf(count, theirs));
  }
  return best;
}

const char kKey[] = "speed/press-2";
const char* const kValues[] = {"41.5", "42.0"};
volatile std::size_t key_size = sizeof kKey - 1, value_size = 4;  // Unknown to the compiler, as lengths are.

// A row is set from bytes, and taken by a wait that finds it pending.
Times SetAndWait(bool wait) {
  const auto table = Varnix::MakeTable("cpp");
  const auto set = Varnix::MakeWatcherSet({table->WatchAll()});
  varnix_table* const c_table = new_table();
  varnix_watcher* const c_watcher = watch_all(c_table);
  varnix_watcher_set* const c_set = set_of(c_watcher);
  varnix_change* const change = new_change();
  const Times best = Compare(
      3000, 300,  // Short rounds: some of them run undisturbed, whatever else the machine does.
      [&](int count) {
        for (int i = 0; i < count; ++i) {
          varnix_table_set(c_table, kKey, key_size, kValues[i % 2], value_size);
          if (wait) CHECK(varnix_watcher_set_wait(c_set, -1, change) == 0 && change->value[0] == '4');
        }
      },
      [&](int count) {
        for (int i = 0; i < count; ++i) {
          table->Set({std::string(kKey, key_size), std::string(kValues[i % 2], value_size)});
          if (wait) CHECK(set->Wait().first.second[0] == '4');
        }
      });
  varnix_watcher_set_free(c_set);
  varnix_watcher_free(c_watcher);
  varnix_change_free(change);
  varnix_table_free(c_table);
  return best;
}

void PollFor(int descriptor) {
  pollfd asked = {descriptor, POLLIN, 0};
  CHECK(poll(&asked, 1, -1) == 1);
}

using Clock = std::chrono::steady_clock;

// From the beginning of `send` until poll() has returned on another thread, which then calls `drain`.
double NanosecondsToPoll(std::size_t count, int descriptor, const std::function<void(std::size_t)>& send,
                         const std::function<void()>& drain) {
  const int drained = eventfd(0, EFD_CLOEXEC);
  std::vector<Clock::time_point> sent(count), seen(count);
  std::thread other([&] {
    for (std::size_t i = 0; i < count; ++i) {
      PollFor(descriptor);
      seen[i] = Clock::now();
      drain();
      CHECK(eventfd_write(drained, 1) == 0);
    }
  });
  for (std::size_t i = 0; i < count; ++i) {
    eventfd_t value;
    sent[i] = Clock::now();
    send(i);
    CHECK(eventfd_read(drained, &value) == 0);
  }
  other.join();
  close(drained);
  std::vector<double> times;
  for (std::size_t i = 0; i < count; ++i)
    times.push_back(std::chrono::duration<double, std::nano>(seen[i] - sent[i]).count());
  std::nth_element(times.begin(), times.begin() + static_cast<std::ptrdiff_t>(count / 2), times.end());
  return times[count / 2];
}

// From now on all threads run on this processor. To wake one on another may take ten times as long, and it is the
// system that chooses.
void StayOnThisProcessor() {
  cpu_set_t processors;
  CPU_ZERO(&processors);
  CPU_SET(static_cast<std::size_t>(sched_getcpu()), &processors);
  CHECK(sched_setaffinity(0, sizeof processors, &processors) == 0);
}

// The median of each.
Times SetToPollReturn() {
  const auto table = Varnix::MakeTable("table");
  const auto set = Varnix::MakeWatcherSet({table->WatchAll()});
  const int event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  Times best;
  for (int round = 0; round < 10; ++round) {
    best.ours = std::min(best.ours, NanosecondsToPoll(
                                        2000, Varnix::GetDescriptor(set),
                                        [&](std::size_t i) {
                                          table->Set({"k", kValues[i % 2]});
                                        },
                                        [&] { CHECK(set->WaitUntil(Clock::time_point::min()).second != nullptr); }));
    best.theirs = std::min(best.theirs, NanosecondsToPoll(
                                            2000, event, [&](std::size_t) { CHECK(eventfd_write(event, 1) == 0); },
                                            [&] {
                                              eventfd_t value;
                                              CHECK(eventfd_read(event, &value) == 0);
                                            }));
  }
  close(event);
  return best;
}

}  // namespace

int main() {
  Varnix::SetLoggingFunction(nullptr);
  StayOnThisProcessor();
  const Times set = SetAndWait(false), both = SetAndWait(true), descriptor = SetToPollReturn();
  std::printf("figure: ns of a set in C %.1f, in C++ %.1f\n", set.ours, set.theirs);
  std::printf("figure: ns of a set and a wait in C %.1f, in C++ %.1f\n", both.ours, both.theirs);
  std::printf("figure: ns from a set until poll returns: set with a descriptor %.0f, bare eventfd %.0f, %.2f\n",
              descriptor.ours, descriptor.theirs, descriptor.ours / descriptor.theirs);
  CHECK(set.ours < set.theirs + 100);
  CHECK(both.ours < both.theirs + 100);
  CHECK(descriptor.ours < 12 * descriptor.theirs);
}
