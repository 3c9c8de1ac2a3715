// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <string>

#include "PeerEnd.h"
#include "network/PeerPlace.h"
#include "support/SystemCallHooks.h"

// A peer that connects over loopback.
class Client : public PeerEnd {
 public:
  explicit Client(unsigned short port, unsigned own_address = INADDR_LOOPBACK)
      : PeerEnd(Connect({INADDR_LOOPBACK, port}, {own_address, 0})) {}

  // The record of the group "group", on port 9, where nobody listens.
  void Answer() const { Send(std::string("\x00\x50\x00\x02group\x00\x09", 11)); }

 private:
  static int Connect(const PeerPlace& place, const PeerPlace& own) {
    const int descriptor = Hooks().socket.Real(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in from = ToSocketAddress(own);
    const sockaddr_in to = ToSocketAddress(place);
    EXPECT_EQ(Hooks().bind.Real(descriptor, Generic(from), sizeof from), 0);
    EXPECT_EQ(Hooks().connect.Real(descriptor, Generic(to), sizeof to), 0);
    return descriptor;
  }
};
