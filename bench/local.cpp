// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Tables within one process, beside the limits: the same map under one mutex and nothing else, and a bare futex.

#include <Varnix.h>
#include <benchmark/benchmark.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace {

constexpr int kRows = 1024;

std::vector<std::string> Keys(int count) {
  std::vector<std::string> keys;
  for (int i = 0; i < count; ++i) {
    std::string key = "key-" + std::to_string(i);
    key.resize(16, '.');
    keys.push_back(key);
  }
  return keys;
}

const std::string kValues[] = {std::string(32, 'a'), std::string(32, 'b')};

// The same keys with the first value, then with the second.
std::vector<Varnix::Row> Rows(int keys, int values) {
  std::vector<Varnix::Row> rows;
  for (int value = 0; value < values; ++value) {
    for (const std::string& key : Keys(keys)) rows.emplace_back(key, kValues[value]);
  }
  return rows;
}

// The two rows that a thread sets in turn.
std::vector<Varnix::Row> RowsOfThread(const benchmark::State& state) {
  const std::string key = "key of thread " + std::to_string(state.thread_index());
  return {{key, kValues[0]}, {key, kValues[1]}};
}

// The logger that a process starts with cannot be had back: what is measured with it comes first.
void Silence() { Varnix::SetLoggingFunction({}); }

// Rows that are set in a table that watchers of so many other keys watch.
class WatchedTable {
 public:
  explicit WatchedTable(std::int64_t watchers) : table(Varnix::MakeTable("bench")) {
    for (std::int64_t i = 0; i < watchers; ++i) watchers_.push_back(table->Watch("other " + std::to_string(i)));
  }

  void Set(const Varnix::Row& row) { table->Set(row); }

  const std::shared_ptr<Varnix::Table> table;

 private:
  std::vector<std::shared_ptr<Varnix::Watcher>> watchers_;
};

// So many rows are new to a table before it is replaced by an empty one, outside the measured time.
constexpr int kNewRows = 10'000;

// `make` gives what the rows are set in.
template <class Make>
void SetNewRows(benchmark::State& state, Make make) {
  const std::vector<Varnix::Row> rows = Rows(kNewRows, 1);
  int next = kNewRows;
  decltype(make()) made;
  for (auto _ : state) {
    if (next == kNewRows) {
      state.PauseTiming();
      made.reset();
      made = make();
      next = 0;
      state.ResumeTiming();
    }
    made->Set(rows[static_cast<std::size_t>(next++)]);
  }
}

void SetNew(benchmark::State& state) {
  SetNewRows(state, [&] { return std::make_unique<WatchedTable>(state.range(0)); });
}

void SetRows(benchmark::State& state, int values) {
  const WatchedTable watched(state.range(0));
  const std::vector<Varnix::Row> rows = Rows(kRows, values);
  for (const Varnix::Row& row : rows) watched.table->Set(row);
  std::size_t next = 0;
  for (auto _ : state) {
    watched.table->Set(rows[next]);
    if (++next == rows.size()) next = 0;
  }
}

void SetChanged(benchmark::State& state) { SetRows(state, 2); }
void SetUnchanged(benchmark::State& state) { SetRows(state, 1); }

template <void (*Measure)(benchmark::State&)>
void Silently(benchmark::State& state) {
  Silence();
  Measure(state);
}

// The limit for Set.
class LockedMap {
 public:
  void Set(const Varnix::Row& row) {
    const std::lock_guard<std::mutex> lock(mutex_);
    map_[row.first] = row.second;
  }

 private:
  std::mutex mutex_;
  std::unordered_map<std::string, std::string> map_;
};

void LimitSetNew(benchmark::State& state) {
  SetNewRows(state, [] { return std::make_unique<LockedMap>(); });
}

void LimitSetChanged(benchmark::State& state) {
  LockedMap map;
  const std::vector<Varnix::Row> rows = Rows(kRows, 2);
  std::size_t next = 0;
  for (auto _ : state) {
    map.Set(rows[next]);
    if (++next == rows.size()) next = 0;
  }
}

// Rows taken from a watcher of the whole table, one call each.
void DrainWatchAll(benchmark::State& state) {
  Silence();
  const auto table = Varnix::MakeTable("bench");
  for (const std::string& key : Keys(kRows)) table->Set({key, kValues[0]});
  std::shared_ptr<Varnix::Watcher> watcher;
  int left = 0;
  for (auto _ : state) {
    if (left == 0) {
      state.PauseTiming();
      watcher = table->WatchAll();
      left = kRows;
      state.ResumeTiming();
    }
    benchmark::DoNotOptimize(watcher->GetChanges());
    --left;
  }
}

// Two threads that wake each other in turn; the time is that of both ways.
void SetToWakeAndBack(benchmark::State& state) {
  Silence();
  const auto there = Varnix::MakeTable("there");
  const auto back = Varnix::MakeTable("back");
  const auto awaited_there = Varnix::MakeWatcherSet({there->WatchAll()});
  const auto awaited_back = Varnix::MakeWatcherSet({back->WatchAll()});
  std::thread other([&] {
    for (;;) {
      const Varnix::Row row = awaited_there->Wait().first;
      back->Set(row);
      if (row.second == "end") return;
    }
  });
  int count = 0;
  for (auto _ : state) {
    there->Set({"k", std::to_string(++count)});
    awaited_back->Wait();
  }
  there->Set({"k", "end"});
  other.join();
}

// The limit for it.
void LimitFutexThereAndBack(benchmark::State& state) {
  std::atomic<std::uint32_t> turn{0};
  std::atomic<bool> ended{false};
  const auto wait_until = [&](std::uint32_t mine) {
    while (turn.load() != mine) syscall(SYS_futex, &turn, FUTEX_WAIT_PRIVATE, 1 - mine, nullptr);
  };
  const auto give_to = [&](std::uint32_t other) {
    turn = other;
    syscall(SYS_futex, &turn, FUTEX_WAKE_PRIVATE, 1);
  };
  std::thread other([&] {
    for (;;) {
      wait_until(1);
      const bool end = ended;
      give_to(0);
      if (end) return;
    }
  });
  for (auto _ : state) {
    give_to(1);
    wait_until(0);
  }
  ended = true;
  give_to(1);
  other.join();
}

void SetOneTable(benchmark::State& state) {
  static const auto table = Varnix::MakeTable("bench");
  Silence();
  const std::vector<Varnix::Row> rows = RowsOfThread(state);
  std::size_t count = 0;
  for (auto _ : state) table->Set(rows[++count % 2]);
}

void SetDifferentTables(benchmark::State& state) {
  Silence();
  const auto table = Varnix::MakeTable("bench");
  const std::vector<Varnix::Row> rows = RowsOfThread(state);
  std::size_t count = 0;
  for (auto _ : state) table->Set(rows[++count % 2]);
}

void LimitSetOneMap(benchmark::State& state) {
  static LockedMap map;
  const std::vector<Varnix::Row> rows = RowsOfThread(state);
  std::size_t count = 0;
  for (auto _ : state) map.Set(rows[++count % 2]);
}

void WatcherCounts(benchmark::internal::Benchmark* measured) {
  for (const int watchers : {0, 10, 1'000, 10'000}) measured->Arg(watchers);
}

}  // namespace

// In this order: those with the logger that a process starts with, then those that silence it.
BENCHMARK(SetNew)->Apply(WatcherCounts);
BENCHMARK(SetChanged)->Apply(WatcherCounts);
BENCHMARK(SetUnchanged)->Apply(WatcherCounts);
BENCHMARK(Silently<SetNew>)->Name("SetNewSilently")->Apply(WatcherCounts);
BENCHMARK(Silently<SetChanged>)->Name("SetChangedSilently")->Apply(WatcherCounts);
BENCHMARK(Silently<SetUnchanged>)->Name("SetUnchangedSilently")->Apply(WatcherCounts);
BENCHMARK(LimitSetNew);
BENCHMARK(LimitSetChanged);
BENCHMARK(DrainWatchAll);
BENCHMARK(SetToWakeAndBack)->UseRealTime();
BENCHMARK(LimitFutexThereAndBack)->UseRealTime();
BENCHMARK(SetOneTable)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();
BENCHMARK(SetDifferentTables)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();
BENCHMARK(LimitSetOneMap)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();
BENCHMARK_MAIN();
