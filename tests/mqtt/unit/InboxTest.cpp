// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <arpa/inet.h>
#include <gmock/gmock.h>

#include <string>

#include "Inbox.h"

namespace {

using ::testing::HasSubstr;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

bool IsShared(const std::string& database) {
  std::string group, device, process;
  return Varnix::GetSharingGroup(database, group, device, process, nullptr);
}

TEST(Inbox, TakesNothingThatItHasNotAskedFor) {
  Options options;
  options.site = "hall1";
  options.group = "unasked";
  options.databases = {"plant"};
  options.imports = {"hall2"};
  options.broadcast_address = inet_addr("127.255.255.255");
  const Topics topics("varnix");
  const Log log(Log::Level::Warning);
  Group group(options, log);
  Inbox inbox(options, topics, group, log);
  CaptureStderr();
  inbox.Take("varnix/hall3/plant/t/k", "of a site that is not imported");
  inbox.Take("varnix/hall2/office/t/k", "of a database that is not ours");
  const std::string lines = GetCapturedStderr();
  EXPECT_THAT(lines, HasSubstr("left out: it was not asked for. Its topic is 'varnix/hall3/plant/t/k'"));
  EXPECT_THAT(lines, HasSubstr("left out: it was not asked for. Its topic is 'varnix/hall2/office/t/k'"));
  EXPECT_FALSE(IsShared("plant@hall3"));
  EXPECT_FALSE(IsShared("office@hall2"));
}

}  // namespace
