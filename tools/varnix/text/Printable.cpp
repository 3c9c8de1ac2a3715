// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "text/Printable.h"

#include <wchar.h>

#include <algorithm>

#include "text/Utf8.h"

namespace {

bool ascii_only = false;

struct Range {
  std::uint32_t first, last;
};

// Control characters, and those that change how the text around them looks, or cannot be seen.
constexpr Range kHidden[] = {{0x00, 0x1F},     {0x7F, 0x9F},     {0xAD, 0xAD},       {0x61C, 0x61C},
                             {0x200B, 0x200F}, {0x2028, 0x202E}, {0x2060, 0x206F},   {0xFEFF, 0xFEFF},
                             {0xFFF0, 0xFFFB}, {0xE000, 0xF8FF}, {0xE0000, 0xE0FFF}, {0xF0000, 0x10FFFF}};

bool IsShown(const Utf8Character& character, bool only_ascii) {
  if (character.size == 0 || (only_ascii && character.size > 1)) return false;
  for (const Range& range : kHidden) {
    if (character.code >= range.first && character.code <= range.last) return false;
  }
  return true;
}

void AppendByte(std::string& printable, char byte) {
  constexpr char kDigits[] = "0123456789abcdef";
  const auto value = static_cast<unsigned char>(byte);
  printable += {'\\', 'x', kDigits[value >> 4], kDigits[value & 0xF]};
}

// What stands for the first character of the text, which is taken away from it.
std::string TakeCharacter(std::string_view& text, bool only_ascii) {
  const Utf8Character character = FirstCharacter(text);
  const std::string_view bytes = text.substr(0, character.size == 0 ? 1 : character.size);
  text.remove_prefix(bytes.size());
  if (bytes == "\\") return "\\\\";
  if (IsShown(character, only_ascii)) return std::string(bytes);
  std::string printable;
  for (const char byte : bytes) AppendByte(printable, byte);
  return printable;
}

// The columns of the first character, which is taken away. Some characters take two, and some none; where the system
// does not know a character, one.
std::size_t TakeColumns(std::string_view& printable) {
  const Utf8Character character = FirstCharacter(printable);
  printable.remove_prefix(std::max<std::size_t>(1, character.size));
  const int columns = character.size > 1 ? wcwidth(static_cast<wchar_t>(character.code)) : 1;
  return columns < 0 ? 1 : static_cast<std::size_t>(columns);
}

bool StandsForItself(char byte) { return byte >= ' ' && byte <= '~' && byte != '\\'; }

std::string ToPrintable(std::string_view text, bool only_ascii) {
  std::string printable;
  printable.reserve(text.size());
  while (!text.empty()) {
    if (StandsForItself(text[0])) {
      printable += text[0];
      text.remove_prefix(1);
    } else {
      printable += TakeCharacter(text, only_ascii);
    }
  }
  return printable;
}

}  // namespace

std::string Printable(std::string_view text) { return ToPrintable(text, ascii_only); }

std::string PrintableUtf8(std::string_view text) { return ToPrintable(text, false); }

std::string Printable(std::string_view text, std::size_t most_columns) {
  std::string printable;
  std::size_t columns = 0, before_last = 0;  // The size of what leaves room for "~".
  while (!text.empty()) {
    const std::string character = TakeCharacter(text, ascii_only);
    columns += Columns(character);
    if (columns > most_columns) return printable.substr(0, before_last) + (most_columns > 0 ? "~" : "");
    printable += character;
    if (columns < most_columns) before_last = printable.size();
  }
  return printable;
}

std::size_t Columns(std::string_view printable) {
  std::size_t columns = 0;
  while (!printable.empty()) columns += TakeColumns(printable);
  return columns;
}

std::string Cut(std::string_view printable, std::size_t most_columns) {
  std::string_view rest = printable;
  for (std::size_t columns = 0; !rest.empty();) {
    std::string_view behind = rest;
    columns += TakeColumns(behind);
    if (columns > most_columns) break;
    rest = behind;
  }
  return std::string(printable.substr(0, printable.size() - rest.size()));
}

void ShowAsciiOnly() { ascii_only = true; }
