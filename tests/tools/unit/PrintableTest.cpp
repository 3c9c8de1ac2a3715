// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Text from the network on a terminal.
#include <gtest/gtest.h>

#include <string>

#include "text/Printable.h"

namespace {

using namespace std::string_literals;

TEST(Printable, LeavesWhatCanBeSeen) { EXPECT_EQ(Printable("42 \u00b0C \U0001f600~"), "42 \u00b0C \U0001f600~"); }

TEST(Printable, ShowsEveryByteOfControlCharacters) {
  EXPECT_EQ(Printable("\0\t\n\x1b[2J\x7f"s), "\\x00\\x09\\x0a\\x1b[2J\\x7f");
  EXPECT_EQ(Printable("\u009b"), "\\xc2\\x9b");
}

TEST(Printable, ShowsCharactersThatTurnTheTextAround) { EXPECT_EQ(Printable("\u202e"), "\\xe2\\x80\\xae"); }

TEST(Printable, ShowsBytesThatAreNoUtf8) { EXPECT_EQ(Printable("a\xff\xe2\x82z"), "a\\xff\\xe2\\x82z"); }

TEST(Printable, IsUnambiguous) { EXPECT_EQ(Printable("\\x41"), "\\\\x41"); }

TEST(Printable, IsCutToColumns) {
  EXPECT_EQ(Printable("speed", 5), "speed");
  EXPECT_EQ(Printable("speedy", 5), "spee~");
  EXPECT_EQ(Printable("\u00e9\u00e9\u00e9", 2), "\u00e9~");
  EXPECT_EQ(Printable("ab\xff", 5), "ab~");  // No part of a number.
  EXPECT_EQ(Printable("ab", 0), "");
}

TEST(Printable, CountsCharactersAsColumns) { EXPECT_EQ(Columns("a\u00e9\U0001f600"), 3u); }

}  // namespace
