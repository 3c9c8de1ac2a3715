// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "Log.h"

namespace {

using std::chrono::seconds;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;
using namespace std::string_literals;

TEST(Printable, LeavesNothingThatCouldMoveACursor) {
  EXPECT_EQ(Printable("a b~\n\x1b[31m\\\xff\0"s), "a b~\\x0a\\x1b[31m\\x5c\\xff\\x00");
  EXPECT_EQ(Printable(std::string(1000, 'x')), std::string(200, 'x') + "...");
}

TEST(Log, WritesLinesUpToItsLevel) {
  CaptureStderr();
  const Log log(Log::Level::Warning);
  log.Notice("not this");
  log.Warning("this");
  const std::string lines = GetCapturedStderr();
  EXPECT_THAT(lines, EndsWith(" warning: this\n"));
  EXPECT_THAT(lines, Not(HasSubstr("not this")));
}

// As systemd names a file in JOURNAL_STREAM.
std::string NameOfStandardError() {
  struct stat file {};
  EXPECT_EQ(fstat(STDERR_FILENO, &file), 0);
  return std::to_string(file.st_dev) + ':' + std::to_string(file.st_ino);
}

Log LogWithJournal(const std::string& stream) {
  // NOLINTBEGIN(concurrency-mt-unsafe): no other thread reads variables meanwhile.
  setenv("JOURNAL_STREAM", stream.c_str(), 1);
  const Log log(Log::Level::Debug);
  unsetenv("JOURNAL_STREAM");
  // NOLINTEND(concurrency-mt-unsafe)
  return log;
}

TEST(Log, GivesTheJournalTheLevelAndNoTime) {
  CaptureStderr();
  const Log log = LogWithJournal(NameOfStandardError());
  log.Error("a");
  log.Warning("b");
  log.Notice("c");
  log.Info("d");
  log.Write(Log::Level::Debug, "e");
  EXPECT_EQ(GetCapturedStderr(), "<3>a\n<4>b\n<5>c\n<6>d\n<7>e\n");
}

TEST(Log, GivesTheTimeWhereStandardErrorIsNotTheJournal) {
  CaptureStderr();
  const Log log = LogWithJournal(NameOfStandardError() + '0');
  log.Warning("this");
  EXPECT_THAT(GetCapturedStderr(), EndsWith(" warning: this\n"));
}

TEST(PacedWarnings, WritesFiveInTenSecondsAndThenTheirNumber) {
  CaptureStderr();
  const Log log(Log::Level::Warning);
  PacedWarnings warnings(log, "were like this");
  const PacedWarnings::Time start = std::chrono::steady_clock::now();
  for (int i = 0; i < 100; ++i) warnings.Write("number " + std::to_string(i), start + seconds(i / 20));
  warnings.Tick(start + seconds(9));
  EXPECT_THAT(GetCapturedStderr(), EndsWith(" warning: number 4\n"));

  CaptureStderr();
  warnings.Tick(start + seconds(10));
  EXPECT_THAT(GetCapturedStderr(), EndsWith(" warning: 95 more were like this\n"));

  CaptureStderr();
  warnings.Tick(start + seconds(20));
  warnings.Write("and again", start + seconds(21));
  EXPECT_THAT(GetCapturedStderr(), EndsWith(" warning: and again\n"));
}

}  // namespace
