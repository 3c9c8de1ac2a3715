// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "text/Base64.h"

#include <cstdint>

namespace {

constexpr std::string_view kBase64Digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

std::string Base64(std::string_view bytes) {
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::string_view group = bytes.substr(i, 3);
    std::uint32_t bits = 0;
    for (std::size_t j = 0; j < 3; ++j)
      bits = bits << 8 | (j < group.size() ? static_cast<unsigned char>(group[j]) : 0U);
    for (std::size_t j = 0; j < 4; ++j) text += j <= group.size() ? kBase64Digits[bits >> (18 - 6 * j) & 0x3F] : '=';
  }
  return text;
}

std::optional<std::string> FromBase64(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  for (int padding = 0; padding < 2 && !text.empty() && text.back() == '='; ++padding) text.remove_suffix(1);
  std::string bytes;
  std::uint32_t bits = 0;
  int count = 0;
  for (const char digit : text) {
    const std::size_t value = kBase64Digits.find(digit);
    if (value == std::string_view::npos) return std::nullopt;
    bits = bits << 6 | static_cast<std::uint32_t>(value);
    if ((count += 6) >= 8) bytes += static_cast<char>(bits >> (count -= 8) & 0xFF);
  }
  return bytes;
}
