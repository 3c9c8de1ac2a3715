// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// The limit of what a network gives a single row: one datagram, nothing promised.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "Peer.h"
#include "SocketAddress.h"

namespace {

constexpr std::size_t kKeySize = 16;

class UdpPeer final : public Peer {
 public:
  explicit UdpPeer(const PeerSettings& settings) : settings_(settings), socket_(socket(AF_INET, SOCK_DGRAM, 0)) {
    if (settings.watched.empty()) return;
    const sockaddr_in place = SocketAddress(settings.watched, INADDR_ANY);
    if (bind(socket_, reinterpret_cast<const sockaddr*>(&place), sizeof place) == 0) return;
    std::perror("bind");
    std::abort();
  }

  void Set(const std::string& key, const std::string& value) override {
    const sockaddr_in place = SocketAddress(settings_.written, inet_addr(settings_.address.c_str()));
    const std::string row = key + value;
    sendto(socket_, row.data(), row.size(), 0, reinterpret_cast<const sockaddr*>(&place), sizeof place);
  }

  [[noreturn]] void Watch(const Seen& seen) override {
    char row[2048];
    for (;;) {
      const ssize_t size = recv(socket_, row, sizeof row, 0);
      if (size > static_cast<ssize_t>(kKeySize)) {
        seen({row, kKeySize}, {row + kKeySize, static_cast<std::size_t>(size) - kKeySize});
      }
    }
  }

 private:
  const PeerSettings settings_;
  const int socket_;
};

}  // namespace

std::unique_ptr<Peer> MakePeer(const PeerSettings& settings) { return std::make_unique<UdpPeer>(settings); }
