#include <gtest/gtest.h>

#include "Tables.h"
#include "databases/TableCombiner.h"
#include "support/LogRecorder.h"
#include "support/ThrowingHook.h"

namespace {

using Varnix::LogLevel;
using Rows = std::vector<Varnix::Row>;

class TableCombinerTest : public testing::Test {
 protected:
  const std::shared_ptr<Varnix::Table> combined_ = Varnix::MakeTable("combined");
  const std::shared_ptr<Varnix::Table> local_ = Varnix::MakeTable("local");
  TableCombiner combiner_{combined_, local_, "cfg"};
};

}  // namespace

TEST_F(TableCombinerTest, SetsTheRowUnderItsCombinedKeyAndUnderItsOwn) {
  combiner_.Set({"mode", "on"});

  EXPECT_EQ(Contents(*combined_), (Rows{{"\3cfgmode", "on"}}));
  EXPECT_EQ(Contents(*local_), (Rows{{"mode", "on"}}));
}

TEST_F(TableCombinerTest, LogsAndThenSetsTheCombinedTableBeforeTheLocalOne) {
  LogRecorder log;

  combiner_.Set({"mode", "on"});

  EXPECT_EQ(log.Lines(), (std::vector<LogLine>{
                             {LogLevel::Debug, "tblcmbn.set",
                              "TableCombiner(" + AddressOf(&combiner_) + ") setting cfg:mode (2 bytes)", ""},
                             {LogLevel::Debug, "tbl.set.ins",
                              "Table(" + AddressOf(combined_.get()) + ") inserting row for \3cfgmode (2 bytes)", ""},
                             {LogLevel::Debug, "tbl.set.ins",
                              "Table(" + AddressOf(local_.get()) + ") inserting row for mode (2 bytes)", ""},
                         }));
}

TEST_F(TableCombinerTest, WatchesTheLocalCopy) {
  const auto key = combiner_.Watch("mode");
  const auto all = combiner_.WatchAll();

  local_->Set({"mode", "from a peer"});

  EXPECT_EQ(key->GetChanges(), (Rows{{"mode", "from a peer"}}));
  EXPECT_EQ(all->GetChanges(), (Rows{{"mode", "from a peer"}}));
}

TEST_F(TableCombinerTest, SetsNothingWhenTheLogHookThrowsAtOnce) {
  {
    const ThrowingHook hook(1);
    EXPECT_THROW(combiner_.Set({"mode", "on"}), HookError);
  }

  EXPECT_EQ(Contents(*combined_), Rows());
  EXPECT_EQ(Contents(*local_), Rows());
}
