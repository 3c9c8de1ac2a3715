// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Splitting any combined key, and printing it, stays within the key; splitting what was combined gives both halves
// back.

#include <cstring>

#include "Expect.h"
#include "names/CombinedKey.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  const std::string combined(reinterpret_cast<const char*>(data), size);

  const SplitKey split(combined);
  if (size > 0 && data[0] < size) {
    EXPECT_PROPERTY(CombinedKey(std::string(split.name), std::string(split.key)) == combined);
  } else {
    EXPECT_PROPERTY(split.name.empty() && split.key.empty());
  }

  const PrintableKey printable(combined);
  const char* const end = combined.c_str() + combined.size();
  EXPECT_PROPERTY(printable.name >= combined.c_str() && printable.name + printable.name_length <= end);
  EXPECT_PROPERTY(printable.key >= combined.c_str() && printable.key + std::strlen(printable.key) <= end);

  const std::string name = combined.substr(0, size / 2).substr(0, 255);
  const std::string key = combined.substr(size / 2);
  const std::string joined = CombinedKey(name, key);
  const SplitKey again(joined);
  EXPECT_PROPERTY(again.name == name && again.key == key);
  return 0;
}
