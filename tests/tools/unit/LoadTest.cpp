// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Lines that are read, and the pace at which rows are set again.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <limits>
#include <string>
#include <vector>

#include "commands/Pace.h"
#include "io/LineReader.h"
#include "net/FileDescriptor.h"

namespace {

using std::chrono::milliseconds;

constexpr std::size_t kLongestLine = 16 << 20;

// The lengths of all lines, as far as they are read.
struct ReadLines {
  std::vector<std::size_t> sizes;
  std::size_t torn = 0;
  bool too_long = false;
};

ReadLines Read(const std::string& text) {
  const FileDescriptor file(memfd_create("lines", MFD_CLOEXEC));
  EXPECT_EQ(pwrite(file.Get(), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
  Loop loop;
  LineReader lines(loop, file.Get());
  ReadLines read;
  for (;;) {
    if (const auto line = lines.Next()) {
      read.sizes.push_back(line->size());
    } else if (lines.IsAtEnd()) {
      break;
    } else {
      loop.Turn(Clock::now());
    }
  }
  read.torn = lines.Torn().size();
  read.too_long = lines.IsTooLong();
  return read;
}

TEST(LineReader, TellsATornLastLineFromAWholeOne) {
  const ReadLines read = Read("one\n\nfour\nto");

  EXPECT_EQ(read.sizes, (std::vector<std::size_t>{3, 0, 4}));
  EXPECT_EQ(read.torn, 2u);
  EXPECT_FALSE(read.too_long);
}

TEST(LineReader, EndsAtALineThatIsTooLong) {
  const ReadLines read = Read("one\n" + std::string(kLongestLine + (1 << 17), 'x') + "\ntwo\n");

  EXPECT_EQ(read.sizes, (std::vector<std::size_t>{3}));
  EXPECT_TRUE(read.too_long);
}

TEST(LineReader, ReadsBehindTheLongestLine) {
  const ReadLines read = Read(std::string(kLongestLine, 'x') + "\n" + std::string(1 << 17, 'y') + "\ntwo\n");

  EXPECT_EQ(read.sizes, (std::vector<std::size_t>{kLongestLine, 1 << 17, 3}));
  EXPECT_FALSE(read.too_long);
}

const TimePoint kOutset = Clock::now();

TEST(Pace, IsThatOfTheRecordingOrSoManyTimesAsFast) {
  for (const double speed : {1.0, 4.0}) {
    Pace pace(kOutset, speed);

    EXPECT_EQ(pace.DueTime(5'000'000), kOutset);
    EXPECT_EQ(pace.DueTime(5'400'000), kOutset + milliseconds(400) / static_cast<int>(speed));
    EXPECT_EQ(pace.DueTime(std::nullopt), kOutset + milliseconds(400) / static_cast<int>(speed));
    EXPECT_EQ(pace.DueTime(5'800'000), kOutset + milliseconds(800) / static_cast<int>(speed));
  }
}

TEST(Pace, OfSpeedZeroIsAtOnce) {
  Pace pace(kOutset, 0);

  EXPECT_EQ(pace.DueTime(0), kOutset);
  EXPECT_EQ(pace.DueTime(5'400'000), kOutset);
}

TEST(Pace, GoesOnAtOnceWhereTheClockWasSetBack) {
  Pace pace(kOutset, 1);
  pace.DueTime(5'000'000);

  EXPECT_EQ(pace.DueTime(0), kOutset);
  EXPECT_EQ(pace.DueTime(100'000), kOutset + milliseconds(100));
}

TEST(Pace, StaysWithinTheRangeOfTheClock) {
  constexpr std::int64_t kTenThousandYears = 315'569'520'000'000'000;
  for (const double speed : {1.0, 1e-300, std::numeric_limits<double>::denorm_min()}) {
    Pace pace(kOutset, speed);
    TimePoint last = pace.DueTime(0);
    for (int i = 1; i <= 20; ++i) {
      const TimePoint due = pace.DueTime(i % 2 * kTenThousandYears);
      EXPECT_GE(due, last);
      last = due;
    }
    EXPECT_GT(last, kOutset + std::chrono::hours(24 * 365));
  }
}

}  // namespace
