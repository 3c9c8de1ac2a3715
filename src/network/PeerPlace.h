// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <netinet/in.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

class ActiveESNs;

// Where a peer listens: an IPv4 address and a port, both in host byte order.
struct PeerPlace {
  unsigned address;
  unsigned short port;
};

inline bool operator==(const PeerPlace& left, const PeerPlace& right) {
  return left.address == right.address && left.port == right.port;
}
inline bool operator!=(const PeerPlace& left, const PeerPlace& right) { return !(left == right); }

// A place, and when it was found: until 30 seconds later it is worth trying.
struct FoundPlace : PeerPlace {
  std::chrono::steady_clock::time_point found_at;
};
constexpr std::chrono::seconds kRetryPeriod(30);

// Told of each place at which a member of the group may listen. `active_esns` keeps the server from ending before the
// thread that is started for the peer.
using FoundPeerCallback = std::function<void(const PeerPlace& place, const std::shared_ptr<ActiveESNs>& active_esns)>;

// A place as the system calls take it, and as they return it.
sockaddr_in ToSocketAddress(const PeerPlace& place);
PeerPlace ToPeerPlace(const sockaddr_in& address);
inline const sockaddr* Generic(const sockaddr_in& address) { return reinterpret_cast<const sockaddr*>(&address); }
inline sockaddr* Generic(sockaddr_in& address) { return reinterpret_cast<sockaddr*>(&address); }

// "ADDRESS:PORT", the address in dotted decimals.
std::string ToText(const PeerPlace& place);

// A port on the wire: two bytes, big-endian.
constexpr std::size_t kPortSize = 2;
std::string ToPortBytes(unsigned short port);
unsigned short ToPort(const char* bytes);
