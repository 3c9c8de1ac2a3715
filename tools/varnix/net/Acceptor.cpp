// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "net/Acceptor.h"

#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "net/Sockets.h"

namespace {

// Without a free descriptor, or memory, a connection stays where it is, and would be reported again and again.
constexpr std::chrono::milliseconds kPause{100};
constexpr int kMostConnections = 64;
constexpr int kMostWaiting = 256;  // More than the system keeps.

}  // namespace

Acceptor::Acceptor(Loop& loop, Owner& owner) : Waiter(loop), owner_(owner), socket_(Listen(port_)) {}

Acceptor::Acceptor(Loop& loop, Owner& owner, const Place& place)
    : Waiter(loop), owner_(owner), socket_(ListenAt(place, port_)) {}

pollfd Acceptor::Awaited() const { return {IsPaused() ? -1 : socket_.Get(), POLLIN, 0}; }

void Acceptor::OnReady(short) {
  for (int i = 0; i < kMostConnections; ++i) {
    sockaddr_in peer{};
    FileDescriptor connected = Accept(peer);
    if (connected.Get() < 0) {
      if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) paused_until_ = Clock::now() + kPause;
      return;
    }
    owner_.OnAccepted(std::move(connected), ToPlace(peer).address);
  }
}

FileDescriptor Acceptor::Accept(sockaddr_in& peer) const {
  socklen_t size = sizeof peer;
  return FileDescriptor(
      accept4(socket_.Get(), reinterpret_cast<sockaddr*>(&peer), &size, SOCK_NONBLOCK | SOCK_CLOEXEC));
}

void Acceptor::Close() {
  sockaddr_in peer{};
  for (int i = 0; i < kMostWaiting; ++i) {
    if (Accept(peer).Get() < 0) break;
  }
  socket_ = FileDescriptor();
}
