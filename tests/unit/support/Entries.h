#pragma once

#include <cstddef>
#include <filesystem>
#include <iterator>

// How many there are in a directory.
inline std::ptrdiff_t Entries(const char* directory) {
  return std::distance(std::filesystem::directory_iterator(directory), std::filesystem::directory_iterator());
}
