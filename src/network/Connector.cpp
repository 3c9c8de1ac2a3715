// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "network/Connector.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

#include "logging/Log.h"
#include "network/SystemCalls.h"

using Varnix::LogLevel;

bool Connector::Connect(std::chrono::nanoseconds time_limit) {
  return TryToConnect(time_limit) && !IsConnectedToItself();
}

bool Connector::TryToConnect(std::chrono::nanoseconds time_limit) {
  if (!SetNonBlocking()) return StartConnecting();
  const bool connected = ConnectWithin(time_limit);
  SetBlocking();
  return connected;
}

bool Connector::SetNonBlocking() {
  const int flags = fcntl(socket_, F_GETFL);
  if (flags < 0) {
    Log(LogLevel::Info, "tblrcvr.sock.nonblck.getfl", "TableReceiver: fcntl failed getting flags: %d", errno);
    return false;
  }
  if (fcntl(socket_, F_SETFL, flags | O_NONBLOCK) < 0) {
    Log(LogLevel::Info, "tblrcvr.sock.nonblck.setfl", "TableReceiver: fcntl failed setting O_NONBLOCK: %d", errno);
    return false;
  }
  return true;
}

bool Connector::StartConnecting() {
  const sockaddr_in peer = ToSocketAddress(place_);
  return connect(socket_, Generic(peer), sizeof peer) == 0;
}

bool Connector::ConnectWithin(std::chrono::nanoseconds time_limit) {
  if (StartConnecting()) return true;
  return errno == EINPROGRESS && WaitForConnection(time_limit) && CheckConnection();
}

bool Connector::WaitForConnection(std::chrono::nanoseconds time_limit) {
  const auto time_out = std::chrono::duration_cast<std::chrono::milliseconds>(time_limit).count();
  pollfd entries[] = {{done_descriptor_, POLLIN, 0}, {socket_, POLLOUT, 0}};
  return PollAgainAfterSignals(entries, 2, static_cast<int>(time_out)) > 0 && entries[0].revents == 0 &&
         entries[1].revents != 0;
}

bool Connector::CheckConnection() {
  int error = 0;
  socklen_t size = sizeof error;
  if (getsockopt(socket_, SOL_SOCKET, SO_ERROR, &error, &size) < 0) {
    Log(LogLevel::Info, "tblrcvr.sock.opt.err", "TableReceiver: getsockopt failed checking SO_ERROR: %d", errno);
    return false;
  }
  if (error != 0) {
    // The number is not `error`, but errno as connect() has left it, 115: field logs are read with that in mind.
    Log(LogLevel::Info, "tblrcvr.sock.conn.err", "TableReceiver: connect failed: %d", errno);
    return false;
  }
  Log(LogLevel::Debug, "tblrcvr.sock.conn.succ", "TableReceiver: connect succeeded");
  return true;
}

void Connector::SetBlocking() {
  const int flags = fcntl(socket_, F_GETFL);
  if (flags < 0) {
    Log(LogLevel::Info, "tblrcvr.sock.blck.getfl", "TableReceiver: fcntl failed getting flags: %d", errno);
  } else if (fcntl(socket_, F_SETFL, flags & ~O_NONBLOCK) < 0) {
    Log(LogLevel::Info, "tblrcvr.sock.blck.setfl", "TableReceiver: fcntl failed clearing O_NONBLOCK: %d", errno);
  }
}

// TCP may connect a socket to itself where nobody listens at a port of this machine.
bool Connector::IsConnectedToItself() const {
  sockaddr_in own{};  // On failure it stays 0.0.0.0:0, which no peer has.
  socklen_t size = sizeof own;
  getsockname(socket_, Generic(own), &size);
  return ToPeerPlace(own) == place_;
}
