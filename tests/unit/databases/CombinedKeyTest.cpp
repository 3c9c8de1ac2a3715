#include <gtest/gtest.h>

#include "databases/CombinedKey.h"

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
  const SplitKey split("\xc8" + std::string(200, 'n') + "key");

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
