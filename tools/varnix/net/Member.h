// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstddef>
#include <string>

#include "net/Place.h"

// A member, as far as it is known. Its group is known from an announcement or from its own words, all else from the
// first record that it sends.
struct Member {
  Place place;
  std::string group;
  std::string database;
  std::string identity;  // As it is on the wire.
  std::string device, process;
};

// Nobody's device and process are longer together; longer ones would take memory that nothing counts.
constexpr std::size_t kMostBytesOfNames = 255 + 4096;

// Fills in what the first record says.
void Name(Member& member, std::string_view database, std::string_view identity);
