#include <gtest/gtest.h>

#include "Tables.h"
#include "databases/TableDecombiner.h"
#include "support/LogRecorder.h"
#include "support/ThrowingHook.h"

namespace {

using Varnix::LogLevel;
using Rows = std::vector<Varnix::Row>;

class TableDecombinerTest : public testing::Test {
 protected:
  std::vector<std::shared_ptr<Varnix::Table>> Copies(const std::string& name) {
    return LocalTables("_vrx_.out_" + name + ".decombined");
  }

  TableDecombiner decombiner_{"decombined"};
};

}  // namespace

TEST_F(TableDecombinerTest, SetsARowIntoTheLocalCopyThatItsKeyNames) {
  decombiner_.Set({"\3cfgmode", "on"});

  ASSERT_EQ(Copies("cfg").size(), 1U);
  EXPECT_EQ(Contents(*Copies("cfg")[0]), (Rows{{"mode", "on"}}));
}

TEST_F(TableDecombinerTest, SetsARowWithAMalformedKeyUnderTheEmptyKeyOfTheEmptyTable) {
  for (const std::string& key : {std::string(), std::string(1, '\0'),
                                 std::string("\x0a"
                                             "12345")}) {
    TableDecombiner decombiner("malformed");

    decombiner.Set({key, "v"});

    EXPECT_EQ(Contents(*decombiner.GetTableTable()), (Rows{{"", ""}}));
    EXPECT_EQ(Contents(*decombiner.GetTable("")), (Rows{{"", "v"}}));
  }
}

TEST_F(TableDecombinerTest, MakesALocalCopyForTheFirstRowOnly) {
  decombiner_.Set({"\3cfga", "1"});
  const auto lists = decombiner_.GetTableTable()->WatchAll();
  EXPECT_EQ(lists->GetChanges(), (Rows{{"cfg", ""}}));

  decombiner_.Set({"\3cfgb", "2"});

  EXPECT_EQ(lists->GetChanges(), Rows());
  EXPECT_EQ(Copies("cfg").size(), 1U);
  EXPECT_EQ(Contents(*Copies("cfg")[0]), (Rows{{"a", "1"}, {"b", "2"}}));
}

TEST_F(TableDecombinerTest, GivesTheSameTableForTheSameName) {
  EXPECT_EQ(decombiner_.GetTable("cfg"), decombiner_.GetTable("cfg"));
  EXPECT_NE(decombiner_.GetTable("cfg"), decombiner_.GetTable("other"));
}

TEST_F(TableDecombinerTest, ListsItsTablesInTheTableTableOfItsDatabase) {
  EXPECT_EQ(LocalTables("_vrx_.tbltbl.decombined"),
            (std::vector<std::shared_ptr<Varnix::Table>>{decombiner_.GetTableTable()}));
}

TEST_F(TableDecombinerTest, CannotBeWatched) {
  EXPECT_EQ(decombiner_.Watch("k"), nullptr);
  EXPECT_EQ(decombiner_.WatchAll(), nullptr);
}

TEST_F(TableDecombinerTest, LogsTheListingTheNewTableAndTheRow) {
  LogRecorder log;

  decombiner_.Set({"\3cfgmode", "on"});

  const std::string name = "TableDecombiner(" + AddressOf(&decombiner_) + ")";
  const std::string copy = AddressOf(Copies("cfg").at(0).get());
  EXPECT_EQ(log.Lines(),
            (std::vector<LogLine>{
                {LogLevel::Debug, "tbl.set.ins",
                 "Table(" + AddressOf(decombiner_.GetTableTable().get()) + ") inserting row for cfg (0 bytes)", ""},
                {LogLevel::Debug, "tblcmbn.create", name + " created table cfg -> " + copy, ""},
                {LogLevel::Debug, "tblcmbn.set", name + " setting cfg:mode (2 bytes)", ""},
                {LogLevel::Debug, "tbl.set.ins", "Table(" + copy + ") inserting row for mode (2 bytes)", ""},
            }));
}

TEST_F(TableDecombinerTest, IsWholeAfterTheLogHookHasThrownAnywhere) {
  for (int n = 1;; ++n) {
    TableDecombiner decombiner("throwing");
    bool thrown = false;
    {
      const ThrowingHook hook(n);
      try {
        decombiner.Set({"\3cfgmode", "on"});
      } catch (const HookError&) {
        thrown = true;
      }
    }
    // What is listed is made, and what is made is listed.
    EXPECT_EQ(LocalTables("_vrx_.out_cfg.throwing").size(), Contents(*decombiner.GetTableTable()).size());

    decombiner.Set({"\3cfgmode", "on"});

    EXPECT_EQ(Contents(*decombiner.GetTableTable()), (Rows{{"cfg", ""}}));
    EXPECT_EQ(Contents(*decombiner.GetTable("cfg")), (Rows{{"mode", "on"}}));
    if (!thrown) {
      EXPECT_EQ(n, 5);  // It logs four lines.
      return;
    }
  }
}
