// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gtest/gtest.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "logging/Log.h"
#include "support/FailingAllocations.h"
#include "support/FailingLocks.h"
#include "support/LogRecorder.h"
#include "support/SleepingThread.h"
#include "support/SystemCallHooks.h"
#include "support/Tables.h"
#include "tables/LWatcherSet.h"

namespace {

using Clock = std::chrono::steady_clock;
using Varnix::Row;
using Change = std::pair<Row, std::shared_ptr<Varnix::Watcher>>;

const Clock::time_point kPast = Clock::time_point();
const Change kNothing;

class ForeignWatcher final : public Varnix::Watcher {
 public:
  std::vector<Row> GetChanges() override { return {{"foreign", "row"}}; }
};

class LWatcherSetTest : public testing::Test {
 protected:
  const std::shared_ptr<Varnix::Table> table_ = Varnix::MakeTable("t");
};

std::chrono::nanoseconds ProcessorTimeOfThisThread() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

}  // namespace

TEST_F(LWatcherSetTest, WithoutMembersGivesNothingAtTheDeadline) {
  const auto set = Varnix::MakeWatcherSet({});
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(20);

  EXPECT_EQ(set->WaitUntil(deadline), kNothing);

  EXPECT_GE(Clock::now(), deadline);
}

TEST_F(LWatcherSetTest, GivesTheRowsOfAWatchAllWatcherInTheOrderOfTheirLastChange) {
  for (const char* key : {"a", "b", "c"}) table_->Set({key, "1"});
  table_->Set({"a", "2"});
  const auto watcher = table_->WatchAll();
  const auto set = Varnix::MakeWatcherSet({watcher});

  EXPECT_EQ(set->Wait(), (Change{{"b", "1"}, watcher}));
  EXPECT_EQ(set->Wait(), (Change{{"c", "1"}, watcher}));
  EXPECT_EQ(set->Wait(), (Change{{"a", "2"}, watcher}));
  EXPECT_EQ(set->WaitUntil(kPast), kNothing);
}

TEST_F(LWatcherSetTest, GivesAPendingChangeAlsoAfterTheDeadline) {
  const auto watcher = table_->WatchAll();
  const auto set = Varnix::MakeWatcherSet({watcher});
  EXPECT_EQ(set->WaitUntil(kPast), kNothing);

  table_->Set({"k", "v"});

  EXPECT_EQ(set->WaitUntil(kPast), (Change{{"k", "v"}, watcher}));
}

TEST_F(LWatcherSetTest, LeavesOutNullPointersAndForeignWatchersSilentlyAndNoOthers) {
  const auto watcher = table_->Watch("k");
  table_->Set({"k", "v"});
  const LogRecorder log;

  const auto set = Varnix::MakeWatcherSet({nullptr, std::make_shared<ForeignWatcher>(), watcher});

  EXPECT_EQ(set->WaitUntil(kPast), (Change{{"k", "v"}, watcher}));
  EXPECT_EQ(set->WaitUntil(kPast), kNothing);
  EXPECT_TRUE(log.Lines().empty());
}

TEST_F(LWatcherSetTest, TakesAWatcherThatIsGivenTwiceAsOneMember) {
  table_->Set({"k", "v"});
  const auto watcher = table_->WatchAll();
  const auto set = Varnix::MakeWatcherSet({watcher, watcher});

  EXPECT_EQ(set->WaitUntil(kPast), (Change{{"k", "v"}, watcher}));
  EXPECT_EQ(set->WaitUntil(kPast), kNothing);
}

TEST_F(LWatcherSetTest, TellsWhichMemberHadTheChange) {
  const auto mode = table_->Watch("mode");
  const auto speed = table_->Watch("speed");
  const auto set = Varnix::MakeWatcherSet({mode, speed});

  table_->Set({"speed", "9"});

  EXPECT_EQ(set->Wait(), (Change{{"speed", "9"}, speed}));
}

TEST_F(LWatcherSetTest, SetOnAnotherThreadEndsAWait) {
  const auto watcher = table_->Watch("k");
  const auto set = Varnix::MakeWatcherSet({watcher});
  std::thread setter([&] { table_->Set({"k", "v"}); });

  EXPECT_EQ(set->Wait(), (Change{{"k", "v"}, watcher}));

  setter.join();
}

TEST_F(LWatcherSetTest, GivesAChangeThatWasBegunBeforeTheDeadlineAndMadeAfterIt) {
  const auto watcher = table_->Watch("k");
  const auto set = Varnix::MakeWatcherSet({watcher});
  Change change;
  std::atomic<bool> begun_before{false};
  for (std::chrono::milliseconds limit(50); !begun_before; limit *= 2) {  // Until this thread was quick enough.
    watcher->GetChanges();                                                // That of a round in which it was not.
    const Clock::time_point deadline = Clock::now() + limit;
    SetLogHook([&](Varnix::LogLevel, const char*, const char*, va_list) {
      begun_before = Clock::now() < deadline;
      std::this_thread::sleep_until(deadline + std::chrono::milliseconds(1));
    });
    const SleepingThread waiter([&] { change = set->WaitUntil(deadline); });

    table_->Set({"k", std::to_string(limit.count())});
  }
  SetLogHook(DefaultLogger);

  EXPECT_EQ(change.second, watcher);
}

TEST_F(LWatcherSetTest, GivesNoChangeThatWasReadDirectly) {
  table_->Set({"k", "v"});
  const auto all = table_->WatchAll();
  const auto key = table_->Watch("k");
  const auto set = Varnix::MakeWatcherSet({all, key});

  all->GetChanges();
  key->GetChanges();

  EXPECT_EQ(set->WaitUntil(kPast), kNothing);
}

TEST_F(LWatcherSetTest, TwoSetsWithOneMemberGiveEachChangeOnce) {
  const auto watcher = table_->WatchAll();
  const auto one = Varnix::MakeWatcherSet({watcher});
  const auto other = Varnix::MakeWatcherSet({watcher});
  table_->Set({"a", "1"});
  table_->Set({"b", "1"});

  EXPECT_EQ(one->WaitUntil(kPast), (Change{{"a", "1"}, watcher}));
  EXPECT_EQ(other->WaitUntil(kPast), (Change{{"b", "1"}, watcher}));
  EXPECT_EQ(one->WaitUntil(kPast), kNothing);
  EXPECT_EQ(other->WaitUntil(kPast), kNothing);

  table_->Set({"c", "1"});
  EXPECT_EQ(other->WaitUntil(kPast), (Change{{"c", "1"}, watcher}));
  EXPECT_EQ(one->WaitUntil(kPast), kNothing);
}

TEST_F(LWatcherSetTest, KeepsItsMembersAlive) {
  auto watcher = table_->WatchAll();
  const std::weak_ptr<Varnix::Watcher> alive = watcher;
  auto set = Varnix::MakeWatcherSet({std::move(watcher)});
  ASSERT_FALSE(alive.expired());

  set.reset();

  EXPECT_TRUE(alive.expired());
}

TEST_F(LWatcherSetTest, MayBeTheLastToHoldItsWatchersAndTheirTable) {
  auto table = Varnix::MakeTable("of the set");
  table->Set({"k", "v"});
  auto ready = table->WatchAll();
  auto idle = table->Watch("missing");
  const std::weak_ptr<Varnix::Table> table_alive = table;
  const std::weak_ptr<Varnix::Watcher> watchers_alive[] = {ready, idle};
  auto set = Varnix::MakeWatcherSet({std::move(ready), std::move(idle)});
  table.reset();
  ASSERT_FALSE(table_alive.expired());

  set.reset();

  EXPECT_TRUE(table_alive.expired());
  for (const auto& watcher : watchers_alive) EXPECT_TRUE(watcher.expired());
}

TEST_F(LWatcherSetTest, LeavesItsMembersInWorkingOrderWhenItIsDestroyed) {
  const auto watcher = table_->WatchAll();
  Varnix::MakeWatcherSet({watcher}).reset();

  table_->Set({"k", "v"});

  EXPECT_EQ(watcher->GetChanges(), (std::vector<Row>{{"k", "v"}}));
}

TEST_F(LWatcherSetTest, LivesOnWhileAThreadWaitsInIt) {
  const std::function<Change(Varnix::WatcherSet&)> waits[] = {
      [](Varnix::WatcherSet& set) { return set.Wait(); },
      [](Varnix::WatcherSet& set) { return set.WaitUntil(Clock::time_point::max()); }};
  for (const auto& wait : waits) {
    const auto watcher = table_->WatchAll();
    auto set = Varnix::MakeWatcherSet({watcher});
    const std::weak_ptr<Varnix::WatcherSet> alive = set;
    const Row row("k", "of wait " + std::to_string(&wait - waits));
    Change seen;
    bool lives_on = false;
    Drain(*watcher);
    {
      const SleepingThread waiter([&, raw = set.get()] { seen = wait(*raw); });
      lives_on = alive.use_count() == 2;  // The waiter has its own reference.
      if (lives_on) set.reset();
      table_->Set(row);
    }
    set.reset();

    EXPECT_TRUE(lives_on);
    EXPECT_EQ(seen, (Change{row, watcher}));
    EXPECT_TRUE(alive.expired());
  }
}

TEST_F(LWatcherSetTest, NeverGivesUpBeforeTheDeadline) {
  const auto set = Varnix::MakeWatcherSet({table_->WatchAll()});
  for (int i = 0; i < 50; ++i) {
    const Clock::time_point deadline = Clock::now() + std::chrono::microseconds(100 * i);

    set->WaitUntil(deadline);

    EXPECT_GE(Clock::now(), deadline);
  }
}

TEST_F(LWatcherSetTest, DoesNotSleepForAnyPastDeadline) {
  const auto set = Varnix::MakeWatcherSet({table_->WatchAll()});

  EXPECT_EQ(set->WaitUntil(Clock::time_point::min()), kNothing);
  EXPECT_EQ(set->WaitUntil(Clock::time_point(std::chrono::nanoseconds(-1))), kNothing);
  EXPECT_EQ(set->WaitUntil(Clock::now()), kNothing);
}

class FarDeadline : public LWatcherSetTest, public testing::WithParamInterface<Clock::time_point> {};

TEST_P(FarDeadline, IsSleptFor) {
  const auto watcher = table_->WatchAll();
  const auto set = Varnix::MakeWatcherSet({watcher});
  std::atomic<bool> waiting{false};
  std::chrono::nanoseconds used{0};
  Change seen;
  std::thread waiter([&] {
    waiting = true;
    seen = set->WaitUntil(GetParam());
    used = ProcessorTimeOfThisThread();
  });
  while (!waiting) std::this_thread::yield();
  Varnix::MakeWatcherSet({})->WaitUntil(Clock::now() + std::chrono::milliseconds(300));  // Time in which it could spin.

  table_->Set({"k", "v"});
  waiter.join();

  EXPECT_EQ(seen, (Change{{"k", "v"}, watcher}));
  EXPECT_LT(used, std::chrono::milliseconds(150));
}

INSTANTIATE_TEST_SUITE_P(Deadlines, FarDeadline,
                         testing::Values(Clock::time_point::max(), Clock::now() + std::chrono::hours(24 * 365 * 100),
                                         Clock::now() + std::chrono::hours(25),
                                         Clock::time_point(std::chrono::seconds(0x7FFFFFFFLL)),
                                         Clock::time_point(std::chrono::seconds(0x80000001LL)),
                                         Clock::time_point(std::chrono::seconds(0x100000001LL))));

TEST_F(LWatcherSetTest, SleepsOnAfterADayWithoutAChange) {
  const auto watcher = table_->WatchAll();
  const auto set = Varnix::MakeWatcherSet({watcher});
  std::atomic<int> days{0};
  // By this clock it is so late that a day ends soon.
  Hooked now(Hooks().now, [&] {
    ++days;
    return Hooks().now.Real() - std::chrono::hours(24) + std::chrono::milliseconds(20);
  });
  Change seen;
  std::thread waiter([&] { seen = set->WaitUntil(Clock::time_point::max()); });
  const auto patience = std::chrono::system_clock::now() + std::chrono::seconds(10);
  while (days < 3 && std::chrono::system_clock::now() < patience) std::this_thread::yield();

  EXPECT_GE(days, 3);
  table_->Set({"k", "v"});
  waiter.join();
  EXPECT_EQ(seen, (Change{{"k", "v"}, watcher}));
}

TEST_F(LWatcherSetTest, LosesNoChangeWhenMemoryRunsOut) {
  const Row row(std::string(100, 'k'), std::string(1000, 'v'));
  table_->Set(row);
  const auto watcher = table_->WatchAll();
  const auto set = Varnix::MakeWatcherSet({watcher});
  Change taken;
  bool failed = true;
  for (long n = 1; failed; ++n) {
    failed = RunsOutOfMemoryAt(n, [&] { taken = set->WaitUntil(kPast); });
    EXPECT_TRUE(failed || n > 1);
  }

  EXPECT_EQ(taken, (Change{row, watcher}));
}

TEST_F(LWatcherSetTest, LosesNoChangeWhenTheLockFails) {
  table_->Set({"k", "v"});
  const auto watcher = table_->WatchAll();
  const auto set = Varnix::MakeWatcherSet({watcher});

  EXPECT_TRUE(FailsToLockAt(1, [&] { set->Wait(); }));
  EXPECT_TRUE(FailsToLockAt(1, [&] { set->WaitUntil(kPast); }));

  EXPECT_EQ(set->WaitUntil(kPast), (Change{{"k", "v"}, watcher}));
}

TEST_F(LWatcherSetTest, LeavesNoTraceWhenMemoryRunsOutWhileItIsMade) {
  table_->Set({"k", "v"});
  const std::vector<std::shared_ptr<Varnix::Watcher>> watchers{table_->WatchAll(), table_->Watch("k"),
                                                               table_->Watch("missing")};
  for (long n = 1;; ++n) {
    const bool failed = RunsOutOfMemoryAt(n, [&] { Varnix::MakeWatcherSet(watchers).reset(); });

    table_->Set({"missing", std::to_string(n)});  // Would call a set that is gone.
    if (!failed) return;
    ASSERT_LT(n, 50);
  }
}

TEST_F(LWatcherSetTest, SeveralWaitersTogetherTakeEveryChangeOnce) {
  constexpr int kRows = 20000;
  constexpr int kWaiters = 3;
  const auto set = Varnix::MakeWatcherSet({table_->WatchAll()});
  std::mutex mutex;
  std::map<std::string, int> taken;
  std::thread waiters[kWaiters];
  for (std::thread& waiter : waiters) {
    waiter = std::thread([&] {
      for (;;) {
        const Row row = set->Wait().first;
        if (row.first == "end") {
          table_->Set({"end", row.second + "."});  // For the next one.
          return;
        }
        const std::lock_guard<std::mutex> lock(mutex);
        ++taken[row.first];
      }
    });
  }

  for (int i = 0; i < kRows; ++i) table_->Set({std::to_string(i), "v"});
  table_->Set({"end", ""});
  for (std::thread& waiter : waiters) waiter.join();

  // A waiter may meet the end before another has counted its last row; but after joining, all are counted.
  EXPECT_EQ(taken.size(), static_cast<std::size_t>(kRows));
  for (const auto& [key, times] : taken) EXPECT_EQ(times, 1) << key;
}

TEST_F(LWatcherSetTest, NoWaiterSleepsWhileAChangeIsPending) {
  // Both sleep when two rows are set in one go; the watcher tells of the first alone.
  constexpr int kRounds = 50;
  const auto set = Varnix::MakeWatcherSet({table_->WatchAll()});
  for (int round = 0; round < kRounds; ++round) {
    const SleepingThread one([&] { set->Wait(); });
    const SleepingThread other([&] { set->Wait(); });
    const Row a("a", std::to_string(round));
    const Row b("b", std::to_string(round));

    table_->Set(a);
    table_->Set(b);

    // Joined at the end of the round: one that is never woken hangs here.
  }
  EXPECT_EQ(set->WaitUntil(kPast), kNothing);
}

TEST_F(LWatcherSetTest, WakesOneSleeperForEachChange) {
  // One that is woken and finds no change sees that its deadline has passed, and returns with nothing.
  constexpr int kRounds = 50;
  const auto set = Varnix::MakeWatcherSet({table_->WatchAll()});
  const Clock::time_point deadline = Clock::now() + std::chrono::hours(1);
  std::atomic<int> with_change{0};
  std::atomic<int> with_nothing{0};
  for (int round = 1; round <= kRounds; ++round) {
    std::atomic<bool> late{false};
    const Hooked now(Hooks().now, [&] { return late ? deadline : Hooks().now.Real(); });
    std::optional<SleepingThread> sleepers[4];
    for (std::optional<SleepingThread>& sleeper : sleepers) {
      sleeper.emplace([&] { ++(set->WaitUntil(deadline).second ? with_change : with_nothing); });
    }
    late = true;
    for (const int awake : {2, 4}) {  // Two rows in one go: the watcher tells of the first, its taker of the second.
      const int woken = 4 * (round - 1) + awake;
      table_->Set({"a", std::to_string(woken)});
      table_->Set({"b", std::to_string(woken)});
      while (with_change + with_nothing < woken) std::this_thread::yield();
    }
  }

  EXPECT_EQ(with_change, 4 * kRounds);
  EXPECT_EQ(with_nothing, 0);
}

TEST_F(LWatcherSetTest, NeedsNoMemoryToLearnOfChanges) {
  std::vector<std::shared_ptr<Varnix::Watcher>> watchers;
  for (int i = 0; i < 100; ++i) watchers.push_back(table_->Watch("k"));
  table_->Set({"k", "1"});
  for (const auto& watcher : watchers) watcher->GetChanges();
  const auto set = Varnix::MakeWatcherSet(watchers);
  const Row fits("k", "2");

  EXPECT_FALSE(RunsOutOfMemoryAt(1, [&] { table_->Set(fits); }));
}

TEST_F(LWatcherSetTest, WithoutMembersSleepsForGoodInWait) {
  EXPECT_EXIT(
      {
        const auto set = Varnix::MakeWatcherSet({});
        const SleepingThread waiter([&] {
          set->Wait();
          _exit(1);
        });
        table_->Set({"k", "v"});
        set->WaitUntil(Clock::now() + std::chrono::milliseconds(50));  // Time in which the other could return.
        _exit(0);
      },
      testing::ExitedWithCode(0), "");
}

TEST_F(LWatcherSetTest, GivesTheChangesOfSeveralTables) {
  const auto other_table = Varnix::MakeTable("other");
  const auto here = table_->WatchAll();
  const auto there = other_table->Watch("k");
  const auto set = Varnix::MakeWatcherSet({here, there});

  other_table->Set({"k", "there"});
  EXPECT_EQ(set->Wait(), (Change{{"k", "there"}, there}));
  table_->Set({"k", "here"});
  EXPECT_EQ(set->Wait(), (Change{{"k", "here"}, here}));

  EXPECT_EQ(set->WaitUntil(kPast), kNothing);
}

TEST_F(LWatcherSetTest, GivesABurstOfChangesOfAKeyOnceWithTheLastValue) {
  const auto watcher = table_->Watch("k");
  const auto set = Varnix::MakeWatcherSet({watcher});

  for (const char* value : {"1", "2", "3"}) table_->Set({"k", value});

  EXPECT_EQ(set->Wait(), (Change{{"k", "3"}, watcher}));
  EXPECT_EQ(set->WaitUntil(kPast), kNothing);
}

TEST_F(LWatcherSetTest, GivesAChangeWithAnEmptyKeyAndValueTogetherWithItsWatcher) {
  const auto watcher = table_->Watch("");
  const auto set = Varnix::MakeWatcherSet({watcher});

  table_->Set({"", ""});

  EXPECT_EQ(set->WaitUntil(kPast), (Change{{"", ""}, watcher}));  // The watcher tells it from the deadline.
}

TEST_F(LWatcherSetTest, ASetThatIsGoneDoesNotDisturbAnotherWithTheSameMember) {
  const auto watcher = table_->WatchAll();
  const auto stays = Varnix::MakeWatcherSet({watcher});
  Varnix::MakeWatcherSet({watcher}).reset();

  table_->Set({"k", "v"});

  EXPECT_EQ(stays->WaitUntil(kPast), (Change{{"k", "v"}, watcher}));
}

TEST_F(LWatcherSetTest, WaitersInTwoSetsWithOneMemberTogetherTakeEveryChangeOnce) {
  constexpr int kRows = 5000;
  const auto watcher = table_->WatchAll();
  const auto one = Varnix::MakeWatcherSet({watcher});
  const auto other = Varnix::MakeWatcherSet({watcher});
  std::mutex mutex;
  std::map<std::string, int> taken;
  const auto take_all = [&](Varnix::WatcherSet& set) {
    for (Row row = set.Wait().first; row.first != "end"; row = set.Wait().first) {
      const std::lock_guard<std::mutex> lock(mutex);
      ++taken[row.first];
    }
    table_->Set({"end", "for the other"});
  };
  {
    const SleepingThread first([&] { take_all(*one); });
    const SleepingThread second([&] { take_all(*other); });

    for (int i = 0; i < kRows; ++i) table_->Set({std::to_string(i), "v"});
    table_->Set({"end", ""});
  }

  EXPECT_EQ(taken.size(), static_cast<std::size_t>(kRows));
  for (const auto& [key, times] : taken) EXPECT_EQ(times, 1) << key;
}

TEST_F(LWatcherSetTest, WaitersAndDirectReadersTogetherTakeEveryChangeOnce) {
  constexpr int kRows = 5000;
  const auto watcher = table_->WatchAll();
  const auto set = Varnix::MakeWatcherSet({watcher});
  std::atomic<int> taken{0};
  std::thread waiter([&] {
    while (taken < kRows) {
      if (set->WaitUntil(Clock::now() + std::chrono::milliseconds(1)).second != nullptr) ++taken;
    }
  });
  std::thread reader([&] {
    while (taken < kRows) taken += static_cast<int>(watcher->GetChanges().size());
  });

  for (int i = 0; i < kRows; ++i) table_->Set({std::to_string(i), "v"});
  waiter.join();
  reader.join();

  EXPECT_EQ(taken, kRows);
}

TEST_F(LWatcherSetTest, AWaiterWithoutMemoryForTheChangeWakesTheNext) {
  const Row row("k", std::string(1000, 'v'));
  const auto set = Varnix::MakeWatcherSet({table_->WatchAll()});
  std::atomic<bool> failed{false};
  {
    const SleepingThread without([&] {
      const FailingAllocation failing(1);
      try {
        set->Wait();
      } catch (const std::bad_alloc&) {
        failed = true;
      }
    });
    {
      const SleepingThread with([&] { set->Wait(); });

      table_->Set(row);

      // Joined here: whichever of the two is woken, this one gets the change.
    }
    if (!failed) table_->Set({"k", std::string(1000, 'w')});  // The other sleeps on.
  }

  EXPECT_TRUE(failed);
}

TEST_F(LWatcherSetTest, LosesNoChangeOfAKeyWhenMemoryRunsOut) {
  const Row row(std::string(100, 'k'), std::string(1000, 'v'));
  const auto watcher = table_->Watch(row.first);
  const auto set = Varnix::MakeWatcherSet({watcher});
  table_->Set(row);
  Change taken;
  int failures = 0;
  for (long n = 1; taken == kNothing; ++n) {
    const FailingAllocation failing(n);
    try {
      taken = set->Wait();
    } catch (const std::bad_alloc&) {
      ++failures;
    }
  }

  EXPECT_EQ(failures, 2);  // The key and the value.
  EXPECT_EQ(taken, (Change{row, watcher}));
  EXPECT_EQ(set->WaitUntil(kPast), kNothing);
}

TEST_F(LWatcherSetTest, LeavesAChangeOfAKeyToItsWatcherWhenMemoryRunsOut) {
  const Row row(std::string(100, 'k'), std::string(1000, 'v'));
  const auto watcher = table_->Watch(row.first);
  const auto set = Varnix::MakeWatcherSet({watcher});
  table_->Set(row);
  {
    const FailingAllocation failing(1);
    EXPECT_THROW(set->Wait(), std::bad_alloc);
  }

  EXPECT_EQ(watcher->GetChanges(), std::vector<Row>{row});
}

TEST_F(LWatcherSetTest, WorksAfterMemoryRanOutWhileAnotherWasMade) {
  const std::vector<std::shared_ptr<Varnix::Watcher>> watchers{table_->WatchAll(), table_->Watch("k")};
  const auto set = Varnix::MakeWatcherSet(watchers);
  for (long n = 1;; ++n) {
    if (!RunsOutOfMemoryAt(n, [&] { Varnix::MakeWatcherSet(watchers).reset(); })) break;
  }

  table_->Set({"k", "v"});

  EXPECT_EQ(set->WaitUntil(kPast).first, (Row{"k", "v"}));
  EXPECT_EQ(set->WaitUntil(kPast).first, (Row{"k", "v"}));
  EXPECT_EQ(set->WaitUntil(kPast), kNothing);
}

TEST_F(LWatcherSetTest, ThatCannotBeMadeDropsItsWatchersWithTheLockReleased) {
  for (long n = 1;; ++n) {
    std::vector<std::shared_ptr<Varnix::Watcher>> watchers{table_->WatchAll(), table_->Watch("k")};
    const std::weak_ptr<Varnix::Watcher> alive = watchers[0];
    const bool failed = RunsOutOfMemoryAt(n, [&] { Varnix::MakeWatcherSet(std::move(watchers)).reset(); });

    EXPECT_TRUE(alive.expired());
    if (!failed) return;
    ASSERT_LT(n, 50);
  }
}

TEST_F(LWatcherSetTest, MayBeMadeAndDestroyedWhileTheTableChanges) {
  const auto watcher = table_->WatchAll();
  std::atomic<bool> done{false};
  std::thread setter([&] {
    for (int i = 0; !done; ++i) table_->Set({"k", std::to_string(i)});
  });

  for (int i = 0; i < 500; ++i) {
    const auto set = Varnix::MakeWatcherSet({watcher, table_->Watch("k")});
    EXPECT_EQ(set->Wait().first.first, "k");
  }

  done = true;
  setter.join();
}
