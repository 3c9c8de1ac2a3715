// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Lines that are read.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "io/LineReader.h"
#include "net/FileDescriptor.h"

namespace {

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

}  // namespace
