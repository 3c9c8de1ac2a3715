// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// One byte string that carries a name and a key: the length of the name in one byte, the name, the key. Names of more
// than 255 bytes are cut. A row's table and key travel so, and a member's device and process.
constexpr std::size_t kMostBytesOfName = 255;

std::string CombinedKey(std::string_view name, std::string_view key);

struct NameAndKey {
  std::string_view name, key;
};

// The views are parts of `combined`. As members do it, one that is empty or claims a longer name than it has gives an
// empty name and an empty key.
NameAndKey SplitCombinedKey(std::string_view combined);
