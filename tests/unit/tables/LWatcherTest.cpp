// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/FailingLocks.h"
#include "tables/AllWatcher.h"
#include "tables/KeyWatcher.h"
#include "tables/LWatcher.h"
#include "tables/WatcherSetListener.h"

namespace {

// Breaks the rule that the destructor of a concrete watcher takes the table lock.
class UnlockedWatcher final : public LocalTable::LWatcher {
 public:
  using LWatcher::LWatcher;

  std::vector<Varnix::Row> GetChanges() override { return {}; }
  void RowInserted(LocalTable::Position) override {}
  void RowUpdated(LocalTable::Position) override {}
  bool Empty() const override { return true; }
  Varnix::Row Take() override { return {}; }
};

class Listener final : public LocalTable::WatcherSetListener {
 public:
  void WatcherChanged(const std::shared_ptr<LocalTable::LWatcher>& watcher, bool empty) override {
    told.emplace_back(watcher.get(), empty);
  }

  std::vector<std::pair<Varnix::Watcher*, bool>> told;
};

class ListenerTest : public testing::Test {
 protected:
  using Told = std::vector<std::pair<Varnix::Watcher*, bool>>;

  void Listen(const std::shared_ptr<Varnix::Watcher>& watcher) {
    const MutexLock lock(table_lock);
    std::dynamic_pointer_cast<LocalTable::LWatcher>(watcher)->AddListener(&listener_);
  }

  const std::shared_ptr<Varnix::Table> table_ = Varnix::MakeTable("t");
  Listener listener_;
};

}  // namespace

TEST(LWatcherDeathTest, AssertsThatTheConcreteDestructorHasLocked) {
  EXPECT_EXIT(std::make_shared<UnlockedWatcher>(LocalTable::Make("t")).reset(), testing::KilledBySignal(SIGABRT),
              "src/Varnix:150: virtual LocalTable::LWatcher::~LWatcher\\(\\): "
              "Assertion `destruction_lock_' failed");
}

TEST_F(ListenerTest, AWatchAllWatcherTellsOnlyWhenItPassesFromEmptyToPending) {
  const auto watcher = table_->WatchAll();
  Listen(watcher);

  table_->Set({"a", "1"});
  table_->Set({"b", "1"});
  table_->Set({"a", "2"});

  EXPECT_EQ(listener_.told, (Told{{watcher.get(), false}}));
}

TEST_F(ListenerTest, AWatchAllWatcherTellsWhenAnUpdateFindsItEmpty) {
  table_->Set({"a", "1"});
  const auto watcher = table_->WatchAll();
  watcher->GetChanges();
  Listen(watcher);

  table_->Set({"a", "2"});

  EXPECT_EQ(listener_.told, (Told{{watcher.get(), false}}));
}

TEST_F(ListenerTest, AWatchAllWatcherTellsOnceThoughItsOnlyRowChangesBeforeItIsRead) {
  const auto watcher = table_->WatchAll();
  Listen(watcher);

  table_->Set({"a", "1"});
  table_->Set({"a", "2"});

  EXPECT_EQ(listener_.told, (Told{{watcher.get(), false}}));
}

TEST_F(ListenerTest, AWatchAllWatcherTellsThatItIsEmptyOnlyAfterTheLastChangeIsRead) {
  table_->Set({"a", "1"});
  table_->Set({"b", "1"});
  const auto watcher = table_->WatchAll();
  Listen(watcher);

  watcher->GetChanges();
  EXPECT_EQ(listener_.told, Told());
  watcher->GetChanges();
  EXPECT_EQ(listener_.told, (Told{{watcher.get(), true}}));
  watcher->GetChanges();
  EXPECT_EQ(listener_.told, (Told{{watcher.get(), true}}));
}

TEST_F(ListenerTest, AKeyWatcherTellsOfEachChangeOfItsKey) {
  const auto watcher = table_->Watch("k");
  Listen(watcher);

  table_->Set({"k", "1"});
  table_->Set({"k", "2"});
  table_->Set({"other", "1"});

  EXPECT_EQ(listener_.told, (Told{{watcher.get(), false}, {watcher.get(), false}}));
}

TEST_F(ListenerTest, AKeyWatcherTellsThatItIsEmptyWhenItIsRead) {
  table_->Set({"k", "1"});
  const auto watcher = table_->Watch("k");
  Listen(watcher);

  watcher->GetChanges();
  watcher->GetChanges();

  EXPECT_EQ(listener_.told, (Told{{watcher.get(), true}}));
}

TEST_F(ListenerTest, AnUpdateToAnEqualValueIsToldToNobody) {
  table_->Set({"k", "1"});
  const auto all = table_->WatchAll();
  const auto key = table_->Watch("k");
  all->GetChanges();
  key->GetChanges();
  Listen(all);
  Listen(key);

  table_->Set({"k", "1"});

  EXPECT_EQ(listener_.told, Told());
}

TEST_F(ListenerTest, TakingTellsNobody) {
  table_->Set({"k", "1"});
  for (const auto& watcher : {table_->WatchAll(), table_->Watch("k")}) {
    Listen(watcher);

    const MutexLock lock(table_lock);
    const auto local = std::dynamic_pointer_cast<LocalTable::LWatcher>(watcher);
    EXPECT_EQ(local->Take(), (Varnix::Row{"k", "1"}));

    EXPECT_TRUE(local->Empty());
    EXPECT_EQ(listener_.told, Told());
  }
}

TEST_F(ListenerTest, IsToldOnceThoughAddedTwice) {
  const auto watcher = table_->Watch("k");
  Listen(watcher);
  Listen(watcher);

  table_->Set({"k", "1"});

  EXPECT_EQ(listener_.told, (Told{{watcher.get(), false}}));
}

TEST_F(ListenerTest, IsToldNoMoreOnceItIsRemoved) {
  const auto watcher = table_->Watch("k");
  Listen(watcher);
  {
    const MutexLock lock(table_lock);
    std::dynamic_pointer_cast<LocalTable::LWatcher>(watcher)->RemoveListener(&listener_);
  }

  table_->Set({"k", "1"});

  EXPECT_EQ(listener_.told, Told());
}

TEST_F(ListenerTest, CannotBeToldByAWatcherWithoutASharedOwner) {
  LocalTable::KeyWatcher unowned(LocalTable::Make("t"), "k", LocalTable::Position());
  const MutexLock lock(table_lock);
  EXPECT_NO_THROW(unowned.NotifyListeners(true));  // Nobody listens.

  unowned.AddListener(&listener_);

  EXPECT_THROW(unowned.NotifyListeners(true), std::bad_weak_ptr);
}

TEST(LWatcher, MayBeMadeReadAndDestroyedWhileOthersSetRows) {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  std::atomic<bool> done{false};
  std::thread setter([&] {
    for (int i = 0; !done; ++i) table->Set({std::to_string(i % 8), std::to_string(i)});
  });

  for (int i = 0; i < 1000; ++i) {
    const auto all = table->WatchAll();
    const auto key = table->Watch("3");
    EXPECT_LE(all->GetChanges().size(), 1U);
    EXPECT_LE(key->GetChanges().size(), 1U);
  }

  done = true;
  setter.join();
}

TEST(LWatcher, LosesNoChangeWhenTheLockFails) {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  table->Set({"k", "v"});
  for (const auto& watcher : {table->WatchAll(), table->Watch("k")}) {
    EXPECT_TRUE(FailsToLockAt(1, [&] { watcher->GetChanges(); }));

    EXPECT_EQ(watcher->GetChanges(), (std::vector<Varnix::Row>{{"k", "v"}}));
  }
}

TEST(LWatcher, MayBeTheLastToHoldItsTable) {
  std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  const std::weak_ptr<Varnix::Table> alive = table;
  std::shared_ptr<Varnix::Watcher> all = table->WatchAll();
  std::shared_ptr<Varnix::Watcher> key = table->Watch("k");
  table.reset();

  all.reset();
  EXPECT_FALSE(alive.expired());
  key.reset();

  EXPECT_TRUE(alive.expired());
}
