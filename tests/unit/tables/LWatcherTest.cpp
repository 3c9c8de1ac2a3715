#include <gtest/gtest.h>

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
