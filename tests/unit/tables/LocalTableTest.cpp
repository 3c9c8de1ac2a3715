#include <gtest/gtest.h>

#include "tables/LocalTable.h"

TEST(LocalTable, IdenticalSetIsInvisibleToEveryWatcher) {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  const std::shared_ptr<Varnix::Watcher> all = table->WatchAll();
  table->Set({"k", "v"});
  ASSERT_EQ(all->GetChanges(), std::vector<Varnix::Row>({{"k", "v"}}));

  table->Set({"k", "v"});

  EXPECT_TRUE(all->GetChanges().empty());
}
