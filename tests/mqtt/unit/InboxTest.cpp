// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <arpa/inet.h>
#include <gmock/gmock.h>

#include <string>

#include "Inbox.h"

namespace {

using ::testing::_;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

bool IsShared(const std::string& database) {
  std::string group, device, process;
  return Varnix::GetSharingGroup(database, group, device, process, nullptr);
}

// The inbox of a bridge that imports hall2.
class InboxTest : public ::testing::Test {
 protected:
  ~InboxTest() override { Varnix::StopSharing("plant@hall2"); }

  static Options MakeOptions() {
    Options options;
    options.site = "hall1";
    options.group = "imported";
    options.databases = {"plant"};
    options.imports = {"hall2"};
    options.broadcast_address = inet_addr("127.255.255.255");
    return options;
  }

  const Options options_ = MakeOptions();
  const Topics topics_{"varnix"};
  const Log log_{Log::Level::Warning};
  Group group_{options_, log_};
  Inbox inbox_{options_, topics_, group_, log_};
};

TEST_F(InboxTest, TakesNothingThatItHasNotAskedFor) {
  CaptureStderr();
  inbox_.Take("varnix/hall3/plant/t/k", "of a site that is not imported");
  inbox_.Take("varnix/hall2/office/t/k", "of a database that is not ours");
  const std::string lines = GetCapturedStderr();
  EXPECT_THAT(lines, HasSubstr("left out: it was not asked for. Its topic is 'varnix/hall3/plant/t/k'"));
  EXPECT_THAT(lines, HasSubstr("left out: it was not asked for. Its topic is 'varnix/hall2/office/t/k'"));
  EXPECT_FALSE(IsShared("plant@hall3"));
  EXPECT_FALSE(IsShared("office@hall2"));
}

// The library sends an empty value with the next row, so there has to be one.
TEST_F(InboxTest, SetsARowBehindAnEmptyValueAndBehindNoOther) {
  const auto behind = Varnix::MakeSharedTable("plant@hall2", Inbox::kOwnTable)->WatchAll();
  inbox_.Take("varnix/hall2/plant/t/k", "full");
  inbox_.LetEmptyValuesLeave();
  EXPECT_THAT(behind->GetChanges(), IsEmpty());
  for (int turn = 0; turn < 2; ++turn) {
    inbox_.Take("varnix/hall2/plant/t/k", "");
    EXPECT_THAT(behind->GetChanges(), IsEmpty());
    inbox_.LetEmptyValuesLeave();
    EXPECT_THAT(behind->GetChanges(), ElementsAre(Pair("beat", _)));
    inbox_.LetEmptyValuesLeave();
    EXPECT_THAT(behind->GetChanges(), IsEmpty());
  }
}

}  // namespace
