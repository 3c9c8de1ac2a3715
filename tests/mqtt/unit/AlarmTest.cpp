// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gtest/gtest.h>
#include <poll.h>

#include <new>

#include "Alarm.h"

namespace {

constexpr int kDeadline = 60'000;

bool IsReadable(int descriptor, int milliseconds) {
  pollfd awaited{descriptor, POLLIN, 0};
  return poll(&awaited, 1, milliseconds) == 1;
}

struct Watched {
  explicit Watched(const Alarm& alarm)
      : table(Varnix::MakeTable("t")),
        changes(table->WatchAll()),
        set(Varnix::MakeWatcherSet({changes, alarm.MakeRecallWatcher()})) {}

  std::shared_ptr<Varnix::Table> table;
  std::shared_ptr<Varnix::Watcher> changes;
  std::shared_ptr<Varnix::WatcherSet> set;
};

// For whose changes there is no memory.
class SetWithoutMemory final : public Varnix::WatcherSet {
 public:
  Alarm::Change Wait() override { throw std::bad_alloc(); }
  Alarm::Change WaitUntil(const std::chrono::steady_clock::time_point& /*deadline*/) override { return Wait(); }
};

TEST(Alarm, RingsForTheFirstChangeAndTakesNoOther) {
  Alarm alarm;
  const Watched watched(alarm);
  alarm.Set(watched.set);
  EXPECT_TRUE(alarm.IsSet());
  EXPECT_FALSE(IsReadable(alarm.Descriptor(), 0));

  watched.table->Set({"first", "1"});
  ASSERT_TRUE(IsReadable(alarm.Descriptor(), kDeadline));
  watched.table->Set({"second", "2"});
  EXPECT_FALSE(alarm.IsSet());
  const std::optional<Alarm::Change> change = alarm.Take();
  ASSERT_TRUE(change);
  EXPECT_EQ(change->first, Varnix::Row("first", "1"));
  EXPECT_EQ(change->second, watched.changes);
  EXPECT_FALSE(IsReadable(alarm.Descriptor(), 0));
  EXPECT_FALSE(alarm.Take());
  EXPECT_EQ(watched.changes->GetChanges().front().first, "second");
}

TEST(Alarm, CanBeSetAgainAfterARecall) {
  Alarm alarm;
  for (int turn = 0; turn < 100; ++turn) {
    const Watched watched(alarm);
    alarm.Set(watched.set);
    alarm.Recall();
    EXPECT_FALSE(alarm.IsSet());
    EXPECT_FALSE(IsReadable(alarm.Descriptor(), 0));
    EXPECT_FALSE(alarm.Take());
    watched.table->Set({"row", std::to_string(turn)});
    alarm.Set(watched.set);
    ASSERT_TRUE(IsReadable(alarm.Descriptor(), kDeadline));
    EXPECT_EQ(alarm.Take()->first.second, std::to_string(turn));
  }
}

TEST(Alarm, HandsOverAtARecallWhatItHasTaken) {
  Alarm alarm;
  const Watched watched(alarm);
  alarm.Set(watched.set);
  watched.table->Set({"row", "1"});
  ASSERT_TRUE(IsReadable(alarm.Descriptor(), kDeadline));
  const std::optional<Alarm::Change> change = alarm.Recall();
  ASSERT_TRUE(change);
  EXPECT_EQ(change->first, Varnix::Row("row", "1"));
  EXPECT_EQ(change->second, watched.changes);
  EXPECT_FALSE(IsReadable(alarm.Descriptor(), 0));
  EXPECT_FALSE(alarm.Recall());
}

TEST(Alarm, HandsOverWhatItsSleepHasThrown) {
  Alarm alarm;
  alarm.Set(std::make_shared<SetWithoutMemory>());
  ASSERT_TRUE(IsReadable(alarm.Descriptor(), kDeadline));
  EXPECT_FALSE(alarm.IsSet());
  EXPECT_THROW(alarm.Take(), std::bad_alloc);
  EXPECT_FALSE(IsReadable(alarm.Descriptor(), 0));
  EXPECT_FALSE(alarm.Take());
}

TEST(Alarm, EndsThoughNobodyHasTakenWhatItsSleepHasThrown) {
  Alarm alarm;
  alarm.Set(std::make_shared<SetWithoutMemory>());
  EXPECT_TRUE(IsReadable(alarm.Descriptor(), kDeadline));
}

TEST(Alarm, EndsWhileItIsSet) {
  Alarm alarm;
  const Watched watched(alarm);
  alarm.Set(watched.set);
}

}  // namespace
