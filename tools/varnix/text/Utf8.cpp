// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "text/Utf8.h"

namespace {

struct Form {
  std::size_t size;
  std::uint32_t least;  // Longer forms of smaller codes are invalid.
  unsigned char lead_mask, lead;
};

constexpr Form kForms[] = {{1, 0, 0x80, 0x00}, {2, 0x80, 0xE0, 0xC0}, {3, 0x800, 0xF0, 0xE0}, {4, 0x10000, 0xF8, 0xF0}};

bool IsCharacter(std::uint32_t code) { return code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF); }

Utf8Character Decode(std::string_view text, const Form& form) {
  if (text.size() < form.size) return {};
  std::uint32_t code = static_cast<unsigned char>(text[0]) & static_cast<unsigned char>(~form.lead_mask);
  for (std::size_t i = 1; i < form.size; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if ((byte & 0xC0) != 0x80) return {};
    code = code << 6 | (byte & 0x3F);
  }
  if (code < form.least || !IsCharacter(code)) return {};
  return {form.size, code};
}

}  // namespace

Utf8Character FirstCharacter(std::string_view text) {
  if (text.empty()) return {};
  const auto lead = static_cast<unsigned char>(text[0]);
  for (const Form& form : kForms) {
    if ((lead & form.lead_mask) == form.lead) return Decode(text, form);
  }
  return {};
}

bool IsUtf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t size = FirstCharacter(text).size;
    if (size == 0) return false;
    text.remove_prefix(size);
  }
  return true;
}
