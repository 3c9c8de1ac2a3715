// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <string>

#include "support/ReceiveBytes.h"
#include "support/SystemCallHooks.h"

// A peer that connects over loopback. What it does passes by the hooks.
class Client {
 public:
  explicit Client(unsigned short port, const char* own_address = "127.0.0.1")
      : socket_(Hooks().socket.Real(AF_INET, SOCK_STREAM, 0)) {
    const timeval deadline = {10, 0};  // Bounds a failing run only.
    Hooks().setsockopt.Real(socket_, SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof deadline);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr(own_address);
    EXPECT_EQ(Hooks().bind.Real(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(Hooks().connect.Real(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  ~Client() { Hooks().close.Real(socket_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // Fewer bytes when the connection ends, or nothing more comes for ten seconds.
  std::string Receive(std::size_t size) const { return ReceiveBytes(socket_, size); }
  void Send(const std::string& bytes) const {
    EXPECT_EQ(Hooks().send.Real(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
  }
  // The record of the group "group", on port 9, where nobody listens.
  void Answer() const { Send(std::string("\x00\x50\x00\x02group\x00\x09", 11)); }
  // False when nothing comes for ten seconds.
  bool IsEnded() const {
    char byte;
    const ssize_t received = Hooks().recv.Real(socket_, &byte, 1, 0);
    return received == 0 || (received < 0 && errno == ECONNRESET);
  }

 private:
  const int socket_;
};
