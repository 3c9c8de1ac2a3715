// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "net/Discovery.h"

#include <sys/socket.h>

#include <cerrno>
#include <optional>
#include <string_view>

#include "net/Sockets.h"
#include "wire/Announcement.h"

namespace {

constexpr int kMostDatagrams = 64;  // A flood of announcements lets the rest of the loop have its turn.

}  // namespace

Discovery::Discovery(Loop& loop, std::uint32_t broadcast, Owner& owner)
    : Waiter(loop),
      broadcast_(broadcast),
      owner_(owner),
      socket_(OpenBroadcastSocket()),
      hearing_error_(BindToDiscoveryPort(socket_)) {}

int Discovery::Send(const std::string& datagram) {
  const sockaddr_in everybody = ToSocketAddress({broadcast_, kDiscoveryPort});
  const ssize_t sent = sendto(socket_.Get(), datagram.data(), datagram.size(), 0,
                              reinterpret_cast<const sockaddr*>(&everybody), sizeof everybody);
  return sent < 0 ? errno : 0;
}

pollfd Discovery::Awaited() const { return {hearing_error_ == 0 ? socket_.Get() : -1, POLLIN, 0}; }

void Discovery::OnReady(short) {
  char datagram[257];  // One byte more than any announcement has, so that a longer one shows.
  for (int i = 0; i < kMostDatagrams; ++i) {
    sockaddr_in source{};
    socklen_t source_size = sizeof source;
    const ssize_t size =
        recvfrom(socket_.Get(), datagram, sizeof datagram, 0, reinterpret_cast<sockaddr*>(&source), &source_size);
    if (size < 0) return;
    const auto announcement = DecodeAnnouncement({datagram, static_cast<std::size_t>(size)});
    if (announcement) owner_.OnAnnouncement({ToPlace(source).address, announcement->port}, announcement->group);
  }
}
