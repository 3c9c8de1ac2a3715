// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "doctor/NearMiss.h"

namespace {

// What a name is without one of the things that are easily overlooked.
using Simplify = std::string (*)(std::string_view);

std::string InLowerCase(std::string_view name) {
  std::string simple;
  for (const char byte : name) simple += byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
  return simple;
}

std::string Without(std::string_view name, std::string_view bytes) {
  std::string simple;
  for (const char byte : name) {
    if (bytes.find(byte) == std::string_view::npos) simple += byte;
  }
  return simple;
}

std::string WithoutBlanks(std::string_view name) { return Without(name, " \t\r\n\v\f"); }
std::string WithoutZeros(std::string_view name) { return Without(name, std::string_view("\0", 1)); }

struct Kind {
  const char* text;
  Simplify simplify;
};

constexpr Kind kKinds[] = {
    {"upper and lower case", InLowerCase}, {"blanks", WithoutBlanks}, {"zero bytes", WithoutZeros}};

}  // namespace

// Each kind that still makes the two more alike when the others are out of the way.
std::string NearMiss(std::string_view left, std::string_view right) {
  std::string simple_left(left), simple_right(right);
  for (const Kind& kind : kKinds) {
    simple_left = kind.simplify(simple_left);
    simple_right = kind.simplify(simple_right);
  }
  if (left == right || simple_left != simple_right) return "";
  std::string text;
  for (const Kind& kind : kKinds) {
    std::string a(left), b(right);
    for (const Kind& other : kKinds) {
      if (&other == &kind) continue;
      a = other.simplify(a);
      b = other.simplify(b);
    }
    if (a != b) text += (text.empty() ? "" : " and ") + std::string(kind.text);
  }
  return text;
}
