// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <map>
#include <string>
#include <tuple>

// Where a member accepts connections. All numbers are in host byte order.
struct Place {
  std::uint32_t address = 0;
  std::uint16_t port = 0;
};

inline bool operator<(const Place& left, const Place& right) {
  return std::tie(left.address, left.port) < std::tie(right.address, right.port);
}
inline bool operator==(const Place& left, const Place& right) {
  return left.address == right.address && left.port == right.port;
}

using CountsByAddress = std::map<std::uint32_t, int>;

sockaddr_in ToSocketAddress(const Place& place);
Place ToPlace(const sockaddr_in& address);

std::string AddressText(std::uint32_t address);  // "10.0.0.1"
std::string PlaceText(const Place& place);       // "10.0.0.1:40213"
