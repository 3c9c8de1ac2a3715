// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "Topic.h"

#include <algorithm>

namespace {

constexpr char kDigits[] = "0123456789ABCDEF";

bool StandsForItself(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == '_' || c == '~';
}

void AppendEncoded(std::string& text, std::string_view bytes) {
  for (const char c : bytes) {
    if (StandsForItself(c)) {
      text += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      text += {'%', kDigits[byte >> 4], kDigits[byte & 0xF]};
    }
  }
}

// -1 for what is no digit, small letters included.
int DigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string EncodePart(std::string_view bytes) {
  std::string part;
  part.reserve(bytes.size());
  AppendEncoded(part, bytes);
  return part;
}

std::optional<std::string> DecodePart(std::string_view part) {
  std::string bytes;
  bytes.reserve(part.size());
  for (std::size_t i = 0; i < part.size(); ++i) {
    if (StandsForItself(part[i])) {
      bytes += part[i];
      continue;
    }
    if (part[i] != '%' || part.size() - i < 3) return std::nullopt;
    const int high = DigitValue(part[i + 1]), low = DigitValue(part[i + 2]);
    if (high < 0 || low < 0) return std::nullopt;
    const char byte = static_cast<char>(high * 16 + low);
    if (StandsForItself(byte)) return std::nullopt;
    bytes += byte;
    i += 2;
  }
  return bytes;
}

std::string Topics::WhatIsWrong(const std::string& prefix) {
  constexpr std::size_t kLevelsBehind = 4;
  if (prefix.empty()) return "it is empty";
  if (prefix.size() > kLongestPrefix) return "it is longer than " + std::to_string(kLongestPrefix) + " bytes";
  if (prefix.front() == '$') return "topics that begin with '$' are the broker's own";
  if (std::any_of(prefix.begin(), prefix.end(), [](char c) { return c <= ' ' || c > '~' || c == '+' || c == '#'; })) {
    return "it may have printable ASCII characters, without the space, '+' and '#'";
  }
  const auto slashes = static_cast<std::size_t>(std::count(prefix.begin(), prefix.end(), '/'));
  if (slashes + 1 + kLevelsBehind > kMostLevels) {
    return "with the row's own it makes more than " + std::to_string(kMostLevels) + " levels";
  }
  return "";
}

std::string Topics::State(std::string_view site) const { return prefix_ + '/' + EncodePart(site) + "/$state"; }

std::string Topics::Table(std::string_view site, std::string_view database, std::string_view table) const {
  return prefix_ + '/' + EncodePart(site) + '/' + EncodePart(database) + '/' + EncodePart(table) + '/';
}

std::string Topics::RowsOfSite(std::string_view site, std::string_view database) const {
  return prefix_ + '/' + EncodePart(site) + '/' + EncodePart(database) + "/+/+";
}

std::string Topics::RowsOfEverySite(std::string_view database) const {
  return prefix_ + "/+/" + EncodePart(database) + "/+/+";
}

// No encoded part has a ':', so no two sites have one name.
std::string Topics::ClientOf(std::string_view site) const { return EncodePart(prefix_) + ':' + EncodePart(site); }

std::optional<RowTopic> Topics::Split(std::string_view topic) const {
  if (topic.size() <= prefix_.size() || topic.substr(0, prefix_.size()) != prefix_ || topic[prefix_.size()] != '/') {
    return std::nullopt;
  }
  std::string_view rest = topic.substr(prefix_.size() + 1);
  RowTopic row;
  for (std::string_view* part : {&row.site, &row.database, &row.table}) {
    const std::size_t slash = rest.find('/');
    if (slash == std::string_view::npos) return std::nullopt;
    *part = rest.substr(0, slash);
    rest.remove_prefix(slash + 1);
  }
  if (rest.find('/') != std::string_view::npos) return std::nullopt;
  row.key = rest;
  return row;
}

std::string_view Topics::WithinSite(std::string_view row_topic) {
  std::size_t start = row_topic.size();
  for (int slashes = 0; start > 0; --start) {
    if (row_topic[start - 1] == '/' && ++slashes == 3) break;
  }
  return row_topic.substr(start);
}
