// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// One peer of a benchmark, for every system the same: PEER WRITTEN WATCHED ADDRESS NAME
// "-" as WRITTEN or WATCHED: none. Takes commands on standard input and answers each with one line, times being
// nanoseconds of the monotonic clock, which all processes of a machine share:
//
//   fill FIRST COUNT      sets COUNT new rows, keys of 16 bytes, values of 32              -> "filled BEGIN END"
//   refill FIRST COUNT    sets these rows to other values, and then the row that `last` waits for -> "refilled BEGIN
//   END" overwrite COUNT       sets one key COUNT times; the last value is the one to be seen   -> "overwritten BEGIN
//   END" every MICROSECONDS COUNT   sets COUNT new rows to the time, one per interval           -> "done"
//   seen COUNT            waits until COUNT different rows were seen                       -> "seen TIME"
//   last                  waits until the last value of `overwrite` or `refill` was seen   -> "last TIME"
//   latencies COUNT       waits for COUNT rows of `every`        -> "latencies NANOSECONDS..." in order of arrival
//   usage                 -> "usage CPU_SECONDS RESIDENT_KIB PEAK_RESIDENT_KIB"

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Peer.h"

namespace {

const std::string kOverwritten = "overwritten-row.";
const std::string kLast = "the last value of all, 32 bytes.";
constexpr char kRowPrefix = 'r';
constexpr char kTimePrefix = 't';

long long Now() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// 16 bytes: the prefix and 15 digits.
std::string Key(char prefix, long long number) {
  char key[24];  // For any number, which compilers ask for.
  std::snprintf(key, sizeof key, "%c%015lld", prefix, number);
  return key;
}

// 32 bytes with a number at the front.
std::string Value(long long number) {
  char value[33];
  std::snprintf(value, sizeof value, "%020lld............", number);
  return value;
}

long long Number(std::string_view digits) { return std::strtoll(std::string(digits).c_str(), nullptr, 10); }

// What the watching thread has seen. A row counts once.
class Sightings {
 public:
  void Add(std::string_view key, std::string_view value) {
    const long long now = Now();
    std::lock_guard<std::mutex> lock(mutex_);
    if (key.front() == kRowPrefix) {
      const auto number = static_cast<std::size_t>(Number(key.substr(1)));
      if (number >= rows_.size()) rows_.resize(std::max(number + 1, 2 * rows_.size()));
      if (rows_[number]) return;
      rows_[number] = true;
      last_new_row_ = now;
      if (++row_count_ != awaited_) return;
    } else if (key.front() == kTimePrefix) {
      latencies_.push_back(now - Number(value.substr(0, 20)));
      if (latencies_.size() < awaited_latencies_) return;
    } else if (value == kLast) {
      last_ = now;
    } else {
      return;
    }
    changed_.notify_all();
  }

  long long WaitForRows(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    awaited_ = count;
    changed_.wait(lock, [&] { return row_count_ >= count; });
    return last_new_row_;
  }

  long long WaitForLast() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return last_ != 0; });
    return std::exchange(last_, 0);
  }

  std::vector<long long> TakeLatencies(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    awaited_latencies_ = count;
    changed_.wait(lock, [&] { return latencies_.size() >= count; });
    return std::exchange(latencies_, {});
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<bool> rows_ = std::vector<bool>(1 << 20);
  std::size_t row_count_ = 0;
  std::size_t awaited_ = 0;
  long long last_new_row_ = 0;
  long long last_ = 0;
  std::vector<long long> latencies_;
  std::size_t awaited_latencies_ = 0;
};

void SetEvery(Peer& peer, std::chrono::microseconds interval, int count) {
  auto next = std::chrono::steady_clock::now();
  for (int i = 0; i < count; ++i) {
    std::this_thread::sleep_until(next += interval);
    peer.Set(Key(kTimePrefix, i), Value(Now()));
    peer.Flush();
  }
}

void Overwrite(Peer& peer, int count) {
  for (int i = 1; i < count; ++i) peer.Set(kOverwritten, Value(i));
  peer.Set(kOverwritten, kLast);
  peer.Flush();
}

void Fill(Peer& peer, long long first, long long count) {
  for (long long i = first; i < first + count; ++i) peer.Set(Key(kRowPrefix, i), Value(i));
  peer.Flush();
}

void Refill(Peer& peer, long long first, long long count) {
  for (long long i = first; i < first + count; ++i) peer.Set(Key(kRowPrefix, i), Value(-i));
  peer.Set(kOverwritten, kLast);
  peer.Flush();
}

// A figure of this process in KiB. (getrusage() gives the peak of the process that started this one, if that was more.)
long MemoryKib(const std::string& name) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(name, 0) == 0) return std::strtol(line.c_str() + name.size(), nullptr, 10);
  }
  return 0;
}

void PrintUsage() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  std::printf("usage %.6f %ld %ld\n", seconds(usage.ru_utime) + seconds(usage.ru_stime), MemoryKib("VmRSS:"),
              MemoryKib("VmHWM:"));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) return std::fputs("usage: PEER WRITTEN WATCHED ADDRESS NAME\n", stderr), 2;
  const auto table = [&](int i) { return std::string(argv[i]) == "-" ? std::string() : std::string(argv[i]); };
  const PeerSettings settings{table(1), table(2), argv[3], argv[4]};
  Sightings sightings;
  const std::unique_ptr<Peer> peer = MakePeer(settings);
  std::thread watching;
  if (!settings.watched.empty()) {
    watching = std::thread(
        [&] { peer->Watch([&](std::string_view key, std::string_view value) { sightings.Add(key, value); }); });
  }

  for (std::string command; std::cin >> command;) {
    const long long begin = Now();
    long long first = 0;
    long long count = 0;
    if (command == "fill" && std::cin >> first >> count) {
      Fill(*peer, first, count);
      std::printf("filled %lld %lld\n", begin, Now());
    } else if (command == "refill" && std::cin >> first >> count) {
      Refill(*peer, first, count);
      std::printf("refilled %lld %lld\n", begin, Now());
    } else if (command == "overwrite" && std::cin >> count) {
      Overwrite(*peer, static_cast<int>(count));
      std::printf("overwritten %lld %lld\n", begin, Now());
    } else if (command == "every" && std::cin >> first >> count) {
      SetEvery(*peer, std::chrono::microseconds(first), static_cast<int>(count));
      std::puts("done");
    } else if (command == "seen" && std::cin >> count) {
      std::printf("seen %lld\n", sightings.WaitForRows(static_cast<std::size_t>(count)));
    } else if (command == "last") {
      std::printf("last %lld\n", sightings.WaitForLast());
    } else if (command == "latencies" && std::cin >> count) {
      std::printf("latencies");
      for (const long long latency : sightings.TakeLatencies(static_cast<std::size_t>(count))) {
        std::printf(" %lld", latency);
      }
      std::puts("");
    } else if (command == "usage") {
      PrintUsage();
    } else {
      break;
    }
    std::fflush(stdout);
  }
  std::_Exit(0);  // The watching thread never returns.
}
