// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

// One character at the beginning of a text; `size` is 0 if it does not begin with a character of valid UTF-8.
struct Utf8Character {
  std::size_t size = 0;
  std::uint32_t code = 0;
};

Utf8Character FirstCharacter(std::string_view text);

bool IsUtf8(std::string_view text);
