// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "names/CombinedKey.h"

namespace {

// As "%.*s::%s" prints it.
std::string Print(const std::string& combined) {
  const PrintableKey printable(combined);
  return std::string(printable.name, static_cast<std::size_t>(printable.name_length)) + "::" + printable.key;
}

}  // namespace

TEST(CombinedKey, IsALengthByteTheNameAndTheKey) { EXPECT_EQ(CombinedKey("cfg", "mode"), "\3cfgmode"); }

TEST(CombinedKey, OfEmptyNameAndKeyIsOneZeroByte) { EXPECT_EQ(CombinedKey("", ""), std::string(1, '\0')); }

TEST(CombinedKey, CutsTheNameAt255Bytes) {
  EXPECT_EQ(CombinedKey(std::string(300, 'n'), "key"), "\xff" + std::string(255, 'n') + "key");
}

TEST(CombinedKey, KeepsZeroBytes) {
  EXPECT_EQ(CombinedKey(std::string("a\0b", 3), std::string("\0c", 2)), std::string("\3a\0b\0c", 6));
}

TEST(SplitKey, TakesACombinedKeyApart) {
  const SplitKey split("\3cfgmode");

  EXPECT_EQ(split.name, "cfg");
  EXPECT_EQ(split.key, "mode");
}

TEST(SplitKey, ReadsTheLengthAsUnsigned) {
  const std::string combined = "\xc8" + std::string(200, 'n') + "key";

  const SplitKey split(combined);

  EXPECT_EQ(split.name, std::string(200, 'n'));
  EXPECT_EQ(split.key, "key");
}

TEST(SplitKey, OfANameAloneHasAnEmptyKey) {
  const SplitKey split("\3cfg");

  EXPECT_EQ(split.name, "cfg");
  EXPECT_EQ(split.key, "");
}

TEST(SplitKey, OfOneZeroByteOrOfNothingHasTwoEmptyHalves) {
  for (const std::string& combined : {std::string(1, '\0'), std::string()}) {
    const SplitKey split(combined);

    EXPECT_EQ(split.name, "");
    EXPECT_EQ(split.key, "");
  }
}

TEST(SplitKey, ThatClaimsMoreThanItHoldsHasTwoEmptyHalves) {
  const SplitKey split(
      "\x0a"
      "12345");

  EXPECT_EQ(split.name, "");
  EXPECT_EQ(split.key, "");
}

TEST(PrintableKey, ShowsNameAndKey) { EXPECT_EQ(Print("\3devproc"), "dev::proc"); }

TEST(PrintableKey, NeverShowsMoreThanIsThere) {
  EXPECT_EQ(Print(""), "::");
  EXPECT_EQ(Print("\xff"), "::");
  EXPECT_EQ(Print("\xff"
                  "short"),
            "short::");
}

TEST(PrintableKey, OfAKeyWithZeroBytesShowsWhatIsBeforeThem) {
  EXPECT_EQ(std::string(PrintableKey(std::string("\3a\0bk\0ey", 8)).name, 3), std::string("a\0b", 3));
  EXPECT_STREQ(PrintableKey(std::string("\3abck\0ey", 8)).key, "k");
}

TEST(PrintableKey, StaysWithinTheStringWhateverLengthItClaims) {
  for (std::size_t claimed = 0; claimed <= 255; ++claimed) {
    for (const std::size_t held :
         {std::size_t{0}, std::size_t{1}, std::size_t{40}, std::size_t{254}, std::size_t{255}, std::size_t{256}}) {
      const std::string combined = static_cast<char>(claimed) + std::string(held, 'n');

      const PrintableKey printable(combined);

      ASSERT_EQ(static_cast<std::size_t>(printable.name_length), std::min(claimed, held));
      ASSERT_EQ(printable.name, combined.data() + 1);
      ASSERT_EQ(std::string(printable.key).size(), held - std::min(claimed, held));
    }
  }
}

TEST(SplitKey, IsTheInverseOfCombinedKey) {
  for (const std::size_t name_size :
       {std::size_t{0}, std::size_t{1}, std::size_t{127}, std::size_t{128}, std::size_t{255}}) {
    for (const std::string& key : {std::string(), std::string("key"), std::string("k\0", 2), std::string(3000, 'k')}) {
      const std::string combined = CombinedKey(std::string(name_size, 'n'), key);

      const SplitKey split(combined);

      EXPECT_EQ(split.name, std::string(name_size, 'n'));
      EXPECT_EQ(split.key, key);
    }
  }
}

TEST(SplitKey, ThatClaimsOneByteMoreThanItHoldsHasTwoEmptyHalves) {
  const SplitKey split("\4cfg");

  EXPECT_EQ(split.name, "");
  EXPECT_EQ(split.key, "");
}
