// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "names/CombinedKey.h"

#include <algorithm>

namespace {

constexpr std::string::size_type kLongestName = 255;

std::string::size_type ClaimedLength(std::string_view combined) {
  return combined.empty() ? 0 : static_cast<unsigned char>(combined.front());
}

}  // namespace

std::string CombinedKey(const std::string& name, const std::string& key) {
  std::string combined;
  AssignCombinedKey(combined, name, key);
  return combined;
}

void AssignCombinedKey(std::string& combined, const std::string& name, const std::string& key) {
  const std::string::size_type length = std::min(name.size(), kLongestName);
  combined.clear();
  combined.reserve(1 + length + key.size());
  combined.push_back(static_cast<char>(length));
  combined.append(name, 0, length);
  combined.append(key);
}

SplitKey::SplitKey(std::string_view combined) {
  const std::string_view::size_type length = ClaimedLength(combined);
  if (length + 1 > combined.size()) return;
  name = combined.substr(1, length);
  key = combined.substr(1 + length);
}

PrintableKey::PrintableKey(const std::string& combined)
    : name_length(static_cast<int>(std::min(ClaimedLength(combined), combined.empty() ? 0 : combined.size() - 1))),
      name(combined.c_str() + (combined.empty() ? 0 : 1)),
      key(name + name_length) {}
