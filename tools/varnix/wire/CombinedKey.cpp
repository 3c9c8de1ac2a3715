// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "wire/CombinedKey.h"

std::string CombinedKey(std::string_view name, std::string_view key) {
  name = name.substr(0, kMostBytesOfName);
  std::string combined(1, static_cast<char>(name.size()));
  return combined.append(name).append(key);
}

NameAndKey SplitCombinedKey(std::string_view combined) {
  if (combined.empty()) return {};
  const std::size_t size = static_cast<unsigned char>(combined[0]);
  combined.remove_prefix(1);
  if (size > combined.size()) return {};
  return {combined.substr(0, size), combined.substr(size)};
}
