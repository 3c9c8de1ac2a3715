// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// What is on the wire.
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "wire/Announcement.h"
#include "wire/CombinedKey.h"
#include "wire/Record.h"

namespace {

using namespace std::string_literals;

TEST(Announcement, IsThePortAndTheGroup) { EXPECT_EQ(Encode({49413, "line-4"}), "\xc1\x05line-4"); }

TEST(Announcement, DecodesWhatWasEncoded) {
  const auto decoded = DecodeAnnouncement("\xc1\x05li\0ne"s);

  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->port, 49413);
  EXPECT_EQ(decoded->group, "li\0ne"s);
}

TEST(Announcement, NeedsTwoToTwoHundredAndFiftySixBytes) {
  EXPECT_FALSE(DecodeAnnouncement("x"));
  EXPECT_TRUE(DecodeAnnouncement("xx"));
  EXPECT_TRUE(DecodeAnnouncement(std::string(256, 'x')));
  EXPECT_FALSE(DecodeAnnouncement(std::string(257, 'x')));
}

TEST(CombinedKey, IsTheLengthOfTheNameTheNameAndTheKey) {
  EXPECT_EQ(CombinedKey("status", "temperature"), "\x06statustemperature");
  EXPECT_EQ(CombinedKey("", ""), "\0"s);
}

TEST(CombinedKey, CutsLongNames) {
  EXPECT_EQ(CombinedKey(std::string(300, 'n'), "key"), "\xff" + std::string(255, 'n') + "key");
}

TEST(CombinedKey, SplitsWhatWasCombined) {
  const std::string combined = CombinedKey(std::string(255, 'n'), "k\0"s);

  EXPECT_EQ(SplitCombinedKey(combined).name, std::string(255, 'n'));
  EXPECT_EQ(SplitCombinedKey(combined).key, "k\0"s);
}

TEST(CombinedKey, SplitsAMalformedOneIntoNothing) {
  for (const std::string& malformed : {""s,
                                       "\x05"
                                       "four"s}) {
    EXPECT_EQ(SplitCombinedKey(malformed).name, "");
    EXPECT_EQ(SplitCombinedKey(malformed).key, "");
  }
}

std::string Encoded(std::string_view a, std::string_view b) {
  std::string stream;
  AppendRecord(stream, {a, b});
  return stream;
}

std::vector<std::pair<std::string, std::string>> TakeAll(RecordReader& reader) {
  std::vector<std::pair<std::string, std::string>> records;
  for (Record record; reader.Next(record);) records.emplace_back(record.a, record.b);
  return records;
}

TEST(Record, IsAHeaderWithBothLengthsAndTheFields) {
  EXPECT_EQ(Encoded("plant", "\x05probepy"), "\x00\x50\x00\x08plant\x05probepy"s);
  EXPECT_EQ(Encoded("", ""), std::string(4, '\0'));
  EXPECT_EQ(Encoded(std::string(4095, 'a'), std::string(1'048'575, 'b')).substr(0, 4), "\xff\xff\xff\xff");
}

TEST(RecordReader, YieldsTheRecordsOfPiecesOfEverySize) {
  const std::string stream = Encoded("a", "bb") + Encoded("", "") + Encoded("ccc", std::string(300, 'd'));
  for (std::size_t size = 1; size <= stream.size(); ++size) {
    RecordReader reader;
    std::vector<std::pair<std::string, std::string>> records;
    for (std::size_t at = 0; at < stream.size(); at += size) {
      reader.Append(std::string_view(stream).substr(at, size));
      for (auto& record : TakeAll(reader)) records.push_back(record);
    }
    EXPECT_EQ(records, (decltype(records){{"a", "bb"}, {"", ""}, {"ccc", std::string(300, 'd')}})) << size;
    EXPECT_EQ(reader.Waiting(), 0u);
  }
}

TEST(RecordReader, TellsTheSizeOfTheNextRecordFromItsHeader) {
  RecordReader reader;
  reader.Append("\x00\x50\x00"s);
  EXPECT_EQ(reader.NextSize(), 0u);
  reader.Append("\x08"s);
  EXPECT_EQ(reader.NextSize(), 4u + 5 + 8);
}

TEST(RecordReader, HoldsNoMoreThanWhatHasCome) {
  RecordReader reader;
  reader.Append("\xff\xff\xff\xff"s);  // Claims the largest fields.
  EXPECT_LT(reader.Held(), 1000u);
}

TEST(RecordReader, GivesItsMemoryBack) {
  RecordReader reader;
  reader.Append(Encoded("a", std::string(1'000'000, 'b')) + "\x00"s);
  EXPECT_EQ(TakeAll(reader).size(), 1u);

  reader.GiveBackMemory();

  EXPECT_LT(reader.Held(), 1000u);
  EXPECT_EQ(reader.Waiting(), 1u);
}

}  // namespace
