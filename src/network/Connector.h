// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <chrono>

#include "network/PeerPlace.h"

// Connects a socket to a peer within a time limit.
//
// Threads: one, which connects. Ownership: owns no descriptor.
class Connector {
 public:
  Connector(int socket, const PeerPlace& place, int done_descriptor)
      : socket_(socket), place_(place), done_descriptor_(done_descriptor) {}

  // False when it fails, takes too long or the server stops. The socket is blocking afterwards. If the socket
  // cannot be made non-blocking, there is no limit.
  bool Connect(std::chrono::nanoseconds time_limit);

 private:
  bool TryToConnect(std::chrono::nanoseconds time_limit);
  bool SetNonBlocking();
  bool ConnectWithin(std::chrono::nanoseconds time_limit);
  bool StartConnecting();
  bool WaitForConnection(std::chrono::nanoseconds time_limit);
  bool CheckConnection();
  void SetBlocking();
  bool IsConnectedToItself() const;

  const int socket_;
  const PeerPlace place_;
  const int done_descriptor_;
};
