// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tables/LocalTable.h"
#include "tables/LocalTableRegistry.h"

namespace {

using testing::Contains;
using testing::Each;
using testing::Not;

}  // namespace

TEST(LocalTableRegistry, ListsATableOnceItIsEntered) {
  const auto table = std::make_shared<LocalTable>("t");
  EXPECT_THAT(LocalTableRegistry::Alive(), Not(Contains(table)));

  LocalTableRegistry::Enter(table);

  EXPECT_THAT(LocalTableRegistry::Alive(), Contains(table));
}

TEST(LocalTableRegistry, ForgetsATableThatLeaves) {
  const auto table = LocalTable::Make("t");
  ASSERT_THAT(LocalTableRegistry::Alive(), Contains(table));

  LocalTableRegistry::Leave(table.get());

  EXPECT_THAT(LocalTableRegistry::Alive(), Not(Contains(table)));
}

TEST(LocalTableRegistry, LetsATableLeaveThatWasNeverEntered) {
  const auto other = LocalTable::Make("other");

  { const LocalTable table("never entered"); }

  EXPECT_THAT(LocalTableRegistry::Alive(), Contains(other));
}

TEST(LocalTableRegistry, KeepsNoTableAlive) {
  auto table = LocalTable::Make("t");
  const std::weak_ptr<LocalTable> alive = table;

  table.reset();

  EXPECT_TRUE(alive.expired());
}

TEST(LocalTableRegistry, LeavesOutATableThatIsBeingDestroyed) {
  struct ListsWhenDestroyed {
    // The table's last reference is gone, and its destructor, which takes it out of the registry, has not begun.
    void operator()(LocalTable* table) const {
      for (const auto& listed : LocalTableRegistry::Alive()) addresses.push_back(listed.get());
      delete table;
    }
    std::vector<LocalTable*>& addresses;
  };
  std::vector<LocalTable*> addresses;
  std::shared_ptr<LocalTable> table(new LocalTable("dying"), ListsWhenDestroyed{addresses});
  const auto other = LocalTable::Make("other");
  LocalTableRegistry::Enter(table);
  const LocalTable* const dying = table.get();

  table.reset();

  EXPECT_THAT(addresses, Contains(other.get()));
  EXPECT_THAT(addresses, Each(testing::Ne(dying)));
}

TEST(LocalTableRegistry, IsLeftWithoutTheTableLock) {
  auto table = LocalTable::Make("t");
  const std::weak_ptr<LocalTable> alive = table;
  const MutexLock lock(table_lock);

  table.reset();  // Would wait for itself.

  EXPECT_TRUE(alive.expired());
}

TEST(LocalTableRegistry, MayBeListedWhileTablesComeAndGo) {
  std::atomic<bool> done{false};
  std::thread maker([&] {
    while (!done) LocalTable::Make("comes and goes").reset();
  });

  for (int i = 0; i < 2000; ++i) {
    for (const auto& [name, table] : Varnix::GetLocalTables()) {
      ASSERT_NE(table, nullptr) << name;
    }
  }

  done = true;
  maker.join();
}

TEST(LocalTableRegistryDeathTest, AcceptsTablesOfStaticObjectsAfterItIsGone) {
  EXPECT_EXIT(
      {
        static struct UsesTablesLate {
          ~UsesTablesLate() {
            table->Set({"k", "late"});
            table.reset();
            const auto another = Varnix::MakeTable("made late");
            std::_Exit(Varnix::GetLocalTables().empty() && another != nullptr ? 0 : 1);
          }
          std::shared_ptr<Varnix::Table> table;
        } uses_tables_late;  // Destroyed after the registry, which is made later.
        uses_tables_late.table = Varnix::MakeTable("t");
        std::exit(2);
      },
      testing::ExitedWithCode(0), "");
}
