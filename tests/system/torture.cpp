// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Uses the whole interface from many threads at once. Its arguments:
//   calls SEED SECONDS   everything at random, while the log hook is replaced and sharing is switched
//   hand-over COUNT WAITERS   every change that one thread sets is taken by one of the waiters; prints the longest wait
//   resharing COUNT   a database is shared, again and again, with a partner; once standard input has told that he has
//                     the last row, prints threads and descriptors
//   forks COUNT   children exit at once while threads call everything
#include <Varnix.h>
#include <arpa/inet.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/FirstThread.h"

namespace {

using Clock = std::chrono::steady_clock;
using Random = std::mt19937;

constexpr int kThreads = 16;

const unsigned kLoopback = inet_addr("127.255.255.255");

int Below(Random& random, int limit) { return static_cast<int>(random() % static_cast<unsigned>(limit)); }

// What one thread holds; it drops the oldest when it holds too many.
template <class Held>
class Hand {
 public:
  void Take(std::shared_ptr<Held> held, Random& random) {
    if (held_.size() < 8) {
      held_.push_back(std::move(held));
    } else {
      held_[static_cast<std::size_t>(Below(random, 8))] = std::move(held);
    }
  }
  std::shared_ptr<Held> Any(Random& random) const {
    return held_.empty() ? nullptr : held_[static_cast<std::size_t>(Below(random, static_cast<int>(held_.size())))];
  }

 private:
  std::vector<std::shared_ptr<Held>> held_;
};

void SetHook(Random& random) {
  switch (Below(random, 3)) {
    case 0:
      return Varnix::SetLoggingFunction({});
    case 1:
      return Varnix::SetLoggingFunction([](Varnix::LogLevel, const char*, const char*, va_list) {});
    default:
      const auto length = std::make_shared<std::size_t>(0);
      return Varnix::SetLoggingFunction([length](Varnix::LogLevel, const char* tag, const char* format, va_list list) {
        char text[256];
        std::vsnprintf(text, sizeof text, format, list);
        *length += std::strlen(tag) + std::strlen(text);
      });
  }
}

// Wakes those who wait without a deadline, until it is destroyed.
class Waker {
 public:
  Waker() : thread_([this] { SetAgainAndAgain(); }) {}
  ~Waker() {
    ends_ = true;
    thread_.join();
  }
  Waker(const Waker&) = delete;
  Waker& operator=(const Waker&) = delete;

  std::shared_ptr<Varnix::Watcher> Watch() const { return table_->Watch("count"); }

 private:
  void SetAgainAndAgain() {
    for (unsigned long count = 0; !ends_; ++count) {
      table_->Set({"count", std::to_string(count)});
      std::this_thread::sleep_for(std::chrono::microseconds(500));  // The pace of the wake-ups.
    }
  }

  const std::shared_ptr<Varnix::Table> table_ = Varnix::MakeTable("waker");
  std::atomic<bool> ends_{false};
  std::thread thread_;
};

void CallAtRandom(unsigned seed, Clock::time_point end, const Waker& waker) {
  Random random(seed);
  const std::string group = "torture " + std::to_string(getpid());
  Hand<Varnix::Table> tables;
  Hand<Varnix::Watcher> watchers;
  Hand<Varnix::WatcherSet> sets;
  tables.Take(Varnix::MakeTable("first"), random);
  while (Clock::now() < end) {
    const std::string name = "name " + std::to_string(Below(random, 4));
    const std::string key = "key " + std::to_string(Below(random, 20));
    const std::shared_ptr<Varnix::Table> table = tables.Any(random);
    const std::shared_ptr<Varnix::Watcher> watcher = watchers.Any(random);
    const std::shared_ptr<Varnix::WatcherSet> set = sets.Any(random);
    switch (Below(random, 1000)) {
      case 0:
        Varnix::SetSharingGroup(name, group, "device", std::to_string(Below(random, 3)), kLoopback);
        break;
      case 1:
        SetHook(random);
        break;
      case 2:
        Varnix::NetworkChanged();
        break;
      default:
        switch (Below(random, 13)) {
          case 0:
            tables.Take(Varnix::MakeTable(name), random);
            break;
          case 1:
            tables.Take(Varnix::MakeSharedTable(name, key), random);
            break;
          case 2:
            tables.Take(Below(random, 2) == 0 ? Varnix::GetDatabaseTable() : Varnix::GetTableTable(name), random);
            break;
          case 3:
            watchers.Take(table->Watch(key), random);
            break;
          case 4:
            watchers.Take(table->WatchAll(), random);
            break;
          case 5:
            sets.Take(Varnix::MakeWatcherSet({watchers.Any(random), watchers.Any(random), watcher}), random);
            break;
          case 6:
            if (watcher != nullptr) watcher->GetChanges();
            break;
          case 7:
            if (set != nullptr) set->WaitUntil(Clock::now() + std::chrono::microseconds(Below(random, 500)));
            break;
          case 8: {
            std::string group_now, device, process;
            unsigned address = 0;
            Varnix::GetSharingGroup(name, group_now, device, process, &address);
            break;
          }
          case 9:
            Varnix::GetLocalTables();
            break;
          case 10: {
            const std::shared_ptr<Varnix::WatcherSet> woken = Varnix::MakeWatcherSet({waker.Watch(), watcher});
            woken->Wait();
            woken->Wait();  // The first of the waker's changes is there already.
            break;
          }
          default:
            table->Set({key, std::string(static_cast<std::size_t>(Below(random, 200)), 'v')});
        }
    }
  }
}

void JoinAll(std::vector<std::thread>& threads) {
  for (std::thread& thread : threads) thread.join();
}

int Calls(unsigned seed, int seconds) {
  const Clock::time_point end = Clock::now() + std::chrono::seconds(seconds);
  const Waker waker;
  std::vector<std::thread> threads;
  for (unsigned number = 0; number < kThreads; ++number) {
    threads.emplace_back(CallAtRandom, seed + number, end, std::cref(waker));
  }
  JoinAll(threads);
  return 0;
}

// One to three changes are set only when those before them have been taken: a wake-up that is lost hangs. Where there
// are waiters enough, each takes one of the changes that are set together: whoever leaves some behind wakes another.
int HandOver(long count, int waiters) {
  constexpr int kMostTogether = 3;
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("hand-over");
  Varnix::SetLoggingFunction({});
  const std::shared_ptr<Varnix::WatcherSet> set = Varnix::MakeWatcherSet({table->WatchAll()});
  std::atomic<long> taken{0}, awaited{0};
  const bool are_enough = waiters >= kMostTogether;
  std::vector<std::thread> threads;
  for (int number = 0; number < waiters; ++number) {
    threads.emplace_back([&] {
      while (set->Wait().first.second != "end") {  // Each waiter takes one end.
        const long with_this = awaited;            // Before the next ones are set.
        ++taken;
        while (are_enough && taken < with_this) std::this_thread::yield();
      }
    });
  }
  Random random(1);
  Clock::duration longest{};
  for (long number = 0; number < count;) {
    const Clock::time_point start = Clock::now();
    const int together = 1 + Below(random, kMostTogether);
    awaited = number + together;
    for (int key = 0; key < together; ++key, ++number) table->Set({std::to_string(key), std::to_string(number)});
    while (taken < number) {
      if (Clock::now() > start + std::chrono::seconds(60)) {
        std::fprintf(stderr, "of %ld changes %ld were taken\n", number, taken.load());
        std::_Exit(1);
      }
      std::this_thread::yield();
    }
    count = std::max(count, number);  // The last burst may go beyond it.
    longest = std::max(longest, Clock::now() - start);
  }
  for (int number = 0; number < waiters; ++number) table->Set({"end " + std::to_string(number), "end"});
  JoinAll(threads);
  std::printf("%ld changes, the longest wait %.3f s\n", taken.load(), std::chrono::duration<double>(longest).count());
  return taken == count ? 0 : 1;
}

// What the process has.
struct Count {
  explicit Count(long more_threads = 0, long more_descriptors = 0)
      : threads(Entries("/proc/self/task") + more_threads), descriptors(Entries("/proc/self/fd") + more_descriptors) {}
  static long Entries(const char* directory) {
    return std::distance(std::filesystem::directory_iterator(directory), std::filesystem::directory_iterator());
  }
  bool operator==(const Count& other) const { return threads == other.threads && descriptors == other.descriptors; }

  long threads;
  long descriptors;
};

// Whether the process comes to this and stays so, with the partner and without the connections that it makes to itself.
bool Settles(const Count& expected) {
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(120);
  for (int looks = 0; looks < 50; looks = Count() == expected ? looks + 1 : 0) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));  // Nothing tells that a thread has ended.
  }
  return true;
}

// A partner who still tries to reach former servers may have missed us.
void AnnounceUntilTold() {
  pollfd input = {STDIN_FILENO, POLLIN, 0};
  while (poll(&input, 1, 2000) == 0) Varnix::NetworkChanged();
}

int Resharing(int count) {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeSharedTable("plant", "state");
  const std::shared_ptr<Varnix::WatcherSet> received = Varnix::MakeWatcherSet({table->Watch("of the partner")});
  Varnix::SetLoggingFunction({});
  StartAndEndAThread();
  // Discovery, accepting, and a stream each way; two sockets, two pipes and the streams.
  const Count expected(4, 2 + 2 * 2 + 2);
  for (int number = 0; number < count; ++number) {
    table->Set({"k", std::to_string(number)});
    Varnix::SetSharingGroup("plant", "line-4", "device", std::to_string(number % 2), kLoopback);
    if (number == 0) {
      received->Wait();
      if (!Settles(expected)) break;
    }
  }
  AnnounceUntilTold();
  const bool settled = Settles(expected);
  const Count now;
  std::printf("%d times shared: threads %ld, descriptors %ld, as after the first time %ld, %ld\n", count, now.threads,
              now.descriptors, expected.threads, expected.descriptors);
  return settled ? 0 : 1;
}

// False when it hangs, or ends in another way.
bool ChildExits() {
  constexpr int kStatus = 7;
  const pid_t child = fork();
  if (child == 0) {
    alarm(60);  // Ends one that hangs.
    std::exit(kStatus);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == kStatus;
}

int Forks(int count) {
  const Waker waker;
  std::atomic<bool> ends{false};
  std::vector<std::thread> threads;
  for (unsigned number = 0; number < kThreads; ++number) {
    threads.emplace_back([&, number] {
      while (!ends) CallAtRandom(number, Clock::now() + std::chrono::milliseconds(100), waker);
    });
  }
  int well = 0;
  for (int number = 0; number < count; ++number) well += ChildExits() ? 1 : 0;
  ends = true;
  JoinAll(threads);
  std::printf("%d children of %d exited well\n", well, count);
  return well == count ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc < 2 ? "" : argv[1];
  if (mode == "calls") return Calls(static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10)), std::atoi(argv[3]));
  if (mode == "hand-over") return HandOver(std::atol(argv[2]), std::atoi(argv[3]));
  if (mode == "resharing") return Resharing(std::atoi(argv[2]));
  if (mode == "forks") return Forks(std::atoi(argv[2]));
  return 2;
}
