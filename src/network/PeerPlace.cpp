// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "network/PeerPlace.h"

#include <arpa/inet.h>

#include <cstdio>

sockaddr_in ToSocketAddress(const PeerPlace& place) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(place.port);
  address.sin_addr.s_addr = htonl(place.address);
  return address;
}

PeerPlace ToPeerPlace(const sockaddr_in& address) { return {ntohl(address.sin_addr.s_addr), ntohs(address.sin_port)}; }

std::string ToText(const PeerPlace& place) {
  char text[sizeof "255.255.255.255:65535"];
  std::snprintf(text, sizeof text, "%u.%u.%u.%u:%u", place.address >> 24, place.address >> 16 & 0xFF,
                place.address >> 8 & 0xFF, place.address & 0xFF, place.port);
  return text;
}

std::string ToPortBytes(unsigned short port) { return {static_cast<char>(port >> 8), static_cast<char>(port & 0xFF)}; }

unsigned short ToPort(const char* bytes) {
  return static_cast<unsigned short>(static_cast<unsigned char>(bytes[0]) << 8 | static_cast<unsigned char>(bytes[1]));
}
