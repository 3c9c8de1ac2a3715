#include "tables/StringMemory.h"

#include <cstddef>

void AssignAndTrim(std::string& stored, const std::string& value) {
  constexpr std::size_t kWorthGivingBack = 1024;
  if (stored.capacity() > kWorthGivingBack && stored.capacity() / 4 > value.size()) {
    std::string(value).swap(stored);  // Assigning would keep the memory.
  } else {
    stored = value;
  }
}

void EmptyForReuse(std::string& place) {
  constexpr std::size_t kWorthKeeping = 4096;
  if (place.capacity() > kWorthKeeping) std::string().swap(place);
  place.clear();
}
