// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstddef>
#include <string>

// The bytes of a literal, embedded zeros included.
template <std::size_t size>
std::string Bytes(const char (&literal)[size]) {
  return std::string(literal, size - 1);
}
