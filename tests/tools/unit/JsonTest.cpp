// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Rows as lines of JSON.
#include <gtest/gtest.h>

#include <string>

#include "text/Base64.h"
#include "text/JsonObject.h"
#include "text/JsonRow.h"
#include "text/Time.h"

namespace {

using namespace std::string_literals;

std::string Written(std::string_view name, std::string_view text) {
  std::string out;
  JsonObject(out).Text(name, text).End();
  return out;
}

TEST(JsonObject, WritesMembersInTheirOrder) {
  std::string out;
  JsonObject(out).Text("key", "speed").Number("port", 49413).Text("value", "").End();
  EXPECT_EQ(out, "{\"key\":\"speed\",\"port\":49413,\"value\":\"\"}\n");
}

TEST(JsonObject, EscapesWhatJsonAndTerminalsWantEscaped) {
  EXPECT_EQ(Written("k", "\"\\/\n\0\x1b\x7f\u009b\u2028\u00a0\u00e9"s),
            "{\"k\":\"\\\"\\\\/\\u000a\\u0000\\u001b\\u007f\\u009b\\u2028\u00a0\u00e9\"}\n");
}

TEST(JsonObject, WritesBase64OfWhatIsNoUtf8) {
  EXPECT_EQ(Written("value", "\xff\x00"s), "{\"value64\":\"/wA=\"}\n");
  EXPECT_EQ(Written("k", "\xed\xa0\x80"), "{\"k64\":\"7aCA\"}\n");          // A surrogate.
  EXPECT_EQ(Written("k", "\xc0\xaf"), "{\"k64\":\"wK8=\"}\n");              // A longer form than is needed.
  EXPECT_EQ(Written("k", "\xf4\x90\x80\x80"), "{\"k64\":\"9JCAgA==\"}\n");  // Beyond the last character.
  EXPECT_EQ(Written("k", "a\xe2\x82"), "{\"k64\":\"YeKC\"}\n");             // Cut short.
}

TEST(Base64, PadsToGroupsOfFour) {
  for (const auto& [bytes, text] :
       {std::pair{"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}}) {
    EXPECT_EQ(Base64(bytes), text);
    EXPECT_EQ(FromBase64(text), bytes);
  }
}

TEST(Base64, EveryByteComesBack) {
  std::string bytes;
  for (int value = 0; value < 256; ++value) bytes += static_cast<char>(value);
  EXPECT_EQ(FromBase64(Base64(bytes)), bytes);
}

TEST(Base64, RefusesOtherText) {
  for (const char* const text : {"Z", "Zg", "Zg=", "Zg=a", "Z===", "Zm 9v", "Zm9v\n", "Zm-_"}) {
    EXPECT_FALSE(FromBase64(text)) << text;
  }
}

std::string Error(std::string_view line) {
  JsonRow row;
  return ParseJsonRow(line, row);
}

TEST(JsonRow, IsReadInEveryOrderAndWithMembersThatWeDoNotKnow) {
  JsonRow row;
  EXPECT_EQ(ParseJsonRow(R"({"value":"42","more":{"key":"x","a":["key",{"table":"no"}]},"n":1.5,"null":null,)"
                         R"("key64":"/wA=","time":"2026-11-22T04:17:29.123456Z","table":"sta\u0000\ud83d\ude00"})",
                         row),
            "");

  EXPECT_EQ(row.table, "sta\0\xf0\x9f\x98\x80"s);
  EXPECT_EQ(row.key, "\xff\0"s);
  EXPECT_EQ(row.value, "42");
  EXPECT_EQ(row.time_us, 1795321049123456);
}

TEST(JsonRow, NeedsNoTime) {
  JsonRow row;
  EXPECT_EQ(ParseJsonRow(R"( {"table":"","key":"","value":""} )", row), "");
  EXPECT_FALSE(row.time_us);
}

TEST(JsonRow, SaysWhatIsWrong) {
  EXPECT_EQ(Error(R"({"table":"t","key":"k"})"), "no \"value\"");
  EXPECT_EQ(Error(R"({"table":"t","value":"v","key":1})"), "no \"key\"");
  EXPECT_EQ(Error(R"({"table":"t","key":"k","value64":"?"})"), "no base64 in \"value64\"");
  EXPECT_EQ(Error(R"({"table":"t","key":"k","value":"v","time":"yesterday"})"), "no point in time in \"time\"");
  EXPECT_EQ(Error("[]"), "no JSON object");
  EXPECT_EQ(Error("\"table\""), "no JSON object");
  EXPECT_EQ(Error(""), "no JSON from byte 1 on");
  EXPECT_EQ(Error("{\"table\":\"\xff\"}"), "no JSON from byte 11 on");
  EXPECT_EQ(Error(R"({"table":"t","key":"k","value":"v"} x)"), "no JSON from byte 37 on");
}

TEST(JsonRow, MayBeTornOnlyWhereItIsNoJsonToItsEnd) {
  const std::string row = R"({"table":"t","key":"k","value":"\u00e4"})";
  for (std::size_t size = 0; size < row.size(); ++size) EXPECT_TRUE(MayBeTorn(row.substr(0, size))) << size;

  for (const auto& line : {row, R"({"table":"t","key":"k"})"s, "{}"s, "[]"s, "42"s}) EXPECT_FALSE(MayBeTorn(line));
}

TEST(JsonRow, StandsAnyDepth) {
  EXPECT_NE(Error(std::string(1'000'000, '[')), "");
  EXPECT_NE(Error("{\"a\":" + std::string(1'000'000, '[')), "");
}

TEST(Time, HasSixDecimals) {
  EXPECT_EQ(TimeText(1795321049123456), "2026-11-22T04:17:29.123456Z");
  EXPECT_EQ(TimeText(1795321049000007), "2026-11-22T04:17:29.000007Z");
}

TEST(Time, GoesOnAfter2038) { EXPECT_EQ(TimeText(4102444800000000), "2100-01-01T00:00:00.000000Z"); }

TEST(Time, IsReadWithAnyDecimalsOrNone) {
  EXPECT_EQ(ParseTime("2026-11-22T04:17:29.123456Z"), 1795321049123456);
  EXPECT_EQ(ParseTime("2026-11-22T04:17:29.5Z"), 1795321049500000);
  EXPECT_EQ(ParseTime("2026-11-22T04:17:29Z"), 1795321049000000);
}

TEST(Time, RefusesOtherText) {
  for (const char* const text :
       {"", "2026-11-22", "2026-11-22T04:17:29", "2026-11-22T04:17:29.Z", "2026-11-22T04:17:29.1234567Z",
        "2026-11-22T04:17:29.1x3Z", "2026-13-22T04:17:29Z", "2026-11-22 04:17:29Z"}) {
    EXPECT_FALSE(ParseTime(text)) << text;
  }
}

}  // namespace
