// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>

// Where the rows of a table are to be had: each has a port of its own, by the last character of its name.
inline sockaddr_in SocketAddress(const std::string& table, std::uint32_t address) {
  sockaddr_in place{};
  place.sin_family = AF_INET;
  place.sin_port = htons(static_cast<std::uint16_t>(5000 + table.back()));
  place.sin_addr.s_addr = address;
  return place;
}
