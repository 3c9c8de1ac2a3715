// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gtest/gtest.h>

#include <string>

#include "Topic.h"

namespace {

using namespace std::string_literals;

std::string EveryByte() {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) bytes += static_cast<char>(byte);
  return bytes;
}

TEST(Part, IsEncodedButForLettersDigitsAndFourSigns) {
  EXPECT_EQ(EncodePart("AZaz09-._~"), "AZaz09-._~");
  EXPECT_EQ(EncodePart("a/b c+#$%@"), "a%2Fb%20c%2B%23%24%25%40");
  EXPECT_EQ(EncodePart("\0\x1f\x7f\x80\xff"s), "%00%1F%7F%80%FF");
  EXPECT_EQ(EncodePart(""), "");
}

TEST(Part, IsDecodedToTheBytesThatItStandsFor) {
  EXPECT_EQ(DecodePart(EncodePart(EveryByte())), EveryByte());
  EXPECT_EQ(DecodePart(""), "");
}

TEST(Part, IsRefusedWhenNoBytesAreEncodedSo) {
  for (const char* part :
       {"%", "%2", "a%", "a%4", "%zz", "%2f", "%41", "%7E", "%%%", "a b", "a/b", "+", "#", "$state", "\xc3\xa4"}) {
    EXPECT_EQ(DecodePart(part), std::nullopt) << part;
  }
}

TEST(Prefix, IsRefusedWhenTopicsCannotBeginSo) {
  for (const std::string& wrong :
       {""s, "$SYS"s, "$share/x"s, "a+"s, "#"s, "a b"s, "a\n"s, "\xc3\xa4"s, "a\0b"s, std::string(1025, 'x')}) {
    EXPECT_NE(Topics::WhatIsWrong(wrong), "") << wrong;
  }
  for (const char* right : {"varnix", "a/b", "/a", "a/", "a%20$b"}) EXPECT_EQ(Topics::WhatIsWrong(right), "") << right;
}

TEST(Prefix, LeavesRoomForTheLevelsOfARow) {
  std::string levels = "x";
  for (int i = 1; i < 196; ++i) levels += "/x";
  EXPECT_EQ(Topics::WhatIsWrong(levels), "");
  EXPECT_EQ(Topics::WhatIsWrong(levels + "/x"), "with the row's own it makes more than 200 levels");
}

TEST(Topics, NameStatesRowsAndSubscriptions) {
  const Topics topics("varnix");
  EXPECT_EQ(topics.State("hall 1"), "varnix/hall%201/$state");
  EXPECT_EQ(topics.Table("hall1", "plant", "a/b"), "varnix/hall1/plant/a%2Fb/");
  EXPECT_EQ(topics.RowsOfSite("hall1", "plant"), "varnix/hall1/plant/+/+");
  EXPECT_EQ(topics.RowsOfEverySite("plant"), "varnix/+/plant/+/+");
  EXPECT_EQ(Topics("a/b").ClientOf("hall1"), "a%2Fb:hall1");
}

TEST(Topics, GiveEachSiteOfEachPrefixAClientOfItsOwn) {
  EXPECT_NE(Topics("varnix").ClientOf("a-b"), Topics("varnix-a").ClientOf("b"));
  EXPECT_NE(Topics("varnix").ClientOf("a:b"), Topics("varnix:a").ClientOf("b"));
}

TEST(Topics, SplitARowIntoItsFourParts) {
  const std::optional<RowTopic> row = Topics("a/b").Split("a/b/hall1/plant//key");
  ASSERT_TRUE(row);
  EXPECT_EQ(row->site, "hall1");
  EXPECT_EQ(row->database, "plant");
  EXPECT_EQ(row->table, "");
  EXPECT_EQ(row->key, "key");
}

TEST(Topics, DoNotSplitWhatHasAnotherPrefixOrAnotherNumberOfParts) {
  const Topics topics("varnix");
  for (const char* other : {"", "varnix", "varnix/", "varnix/a/b/c", "varnix/a/b/c/d/e", "varnixx/a/b/c/d",
                            "other/a/b/c/d", "/varnix/a/b/c/d", "varnix/hall1/$state"}) {
    EXPECT_FALSE(topics.Split(other)) << other;
  }
}

TEST(Topics, FitTheLargestRowBehindTheLongestPrefix) {
  const Topics topics(std::string(Topics::kLongestPrefix, 'p'));
  const std::string site(255, '/'), database(4095 - 256, '/'), table(255, '/'), key(4095 - 256, '/');
  EXPECT_LE(topics.Table(site, database, table).size() + EncodePart(key).size(), Topics::kLongest);
}

TEST(Topics, AreShownWithoutPrefixAndSite) {
  EXPECT_EQ(Topics::WithinSite("a/b/hall1/plant/status/key"), "plant/status/key");
  EXPECT_EQ(Topics::WithinSite("short"), "short");
}

}  // namespace
