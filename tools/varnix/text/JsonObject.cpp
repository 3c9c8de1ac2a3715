// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "text/JsonObject.h"

#include <cstdio>

#include "text/Base64.h"
#include "text/Utf8.h"

namespace {

void AppendEscaped(std::string& out, unsigned code) {
  char escaped[7];
  std::snprintf(escaped, sizeof escaped, "\\u%04x", code);
  out += escaped;
}

bool NeedsNoEscape(char byte) { return byte >= ' ' && byte <= '~' && byte != '"' && byte != '\\'; }

// Beyond what JSON asks for: control characters that a terminal may obey, and what some take for the end of a line.
bool IsControl(const Utf8Character& character) {
  return character.code < ' ' || (character.code >= 0x7F && character.code < 0xA0) || character.code == 0x2028 ||
         character.code == 0x2029;
}

void AppendText(std::string& out, std::string_view text) {
  while (!text.empty()) {
    const Utf8Character character = NeedsNoEscape(text[0]) ? Utf8Character{1, ' '} : FirstCharacter(text);
    if (IsControl(character)) {
      AppendEscaped(out, character.code);
    } else {
      if (text[0] == '"' || text[0] == '\\') out += '\\';
      out.append(text.substr(0, character.size));
    }
    text.remove_prefix(character.size);
  }
}

}  // namespace

JsonObject::JsonObject(std::string& out) : out_(out) { out_ += '{'; }

void JsonObject::Name(std::string_view name, std::string_view suffix) {
  if (out_.back() != '{') out_ += ',';
  out_.append("\"").append(name).append(suffix).append("\":");
}

JsonObject& JsonObject::Text(std::string_view name, std::string_view text) {
  const bool readable = IsUtf8(text);
  Name(name, readable ? "" : "64");
  out_ += '"';
  if (readable) {
    AppendText(out_, text);
  } else {
    out_ += Base64(text);
  }
  out_ += '"';
  return *this;
}

JsonObject& JsonObject::Number(std::string_view name, std::uint64_t number) {
  Name(name);
  out_ += std::to_string(number);
  return *this;
}

void JsonObject::End() { out_ += "}\n"; }
