// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "memory/StringMemory.h"

#include <cstddef>

void AssignAndTrim(std::string& stored, const std::string& value) {
  constexpr std::size_t kWorthGivingBack = 1024;
  const bool too_large = stored.capacity() > kWorthGivingBack && stored.capacity() / 4 > value.size();
  if (too_large || value.size() > stored.capacity()) {
    std::string(value).swap(stored);  // Assigning would keep the memory, or take twice as much as before.
  } else {
    stored = value;
  }
}

void EmptyForReuse(std::string& place) {
  constexpr std::size_t kWorthKeeping = 4096;
  if (place.capacity() > kWorthKeeping) std::string().swap(place);
  place.clear();
}
