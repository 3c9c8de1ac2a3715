// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "net/Place.h"

#include <arpa/inet.h>

sockaddr_in ToSocketAddress(const Place& place) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(place.address);
  address.sin_port = htons(place.port);
  return address;
}

Place ToPlace(const sockaddr_in& address) { return {ntohl(address.sin_addr.s_addr), ntohs(address.sin_port)}; }

std::string AddressText(std::uint32_t address) {
  char text[INET_ADDRSTRLEN];
  const in_addr number{htonl(address)};
  return inet_ntop(AF_INET, &number, text, sizeof text);
}

std::string PlaceText(const Place& place) { return AddressText(place.address) + ":" + std::to_string(place.port); }
