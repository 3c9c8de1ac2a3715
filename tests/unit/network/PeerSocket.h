// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "support/SystemCallHooks.h"

// Until the stream ends, which is up to the other side; waits no longer than ten seconds for each piece.
inline std::string ReceiveUntilEnd(int descriptor) {
  const timeval deadline = {10, 0};
  Hooks().setsockopt.Real(descriptor, SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof deadline);
  std::string received;
  for (;;) {
    char piece[4096];
    const ssize_t size = Hooks().recv.Real(descriptor, piece, sizeof piece, 0);
    if (size < 0) ADD_FAILURE() << "the stream did not end: errno " << errno;
    if (size <= 0) return received;
    received.append(piece, static_cast<std::size_t>(size));
  }
}

// A peer that accepts a connection on loopback, sends `says` at once and `answers` when it is told to, and then ends
// its half of the stream, if it `ends`. All on the thread that connects to it.
class PeerSocket {
 public:
  PeerSocket() : listener_(socket(AF_INET, SOCK_STREAM, 0)) {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address_;
    EXPECT_EQ(Hooks().bind.Real(listener_, Address(), size), 0);
    EXPECT_EQ(Hooks().listen.Real(listener_, 10), 0);
    EXPECT_EQ(Hooks().getsockname.Real(listener_, Address(), &size), 0);
  }
  ~PeerSocket() {
    Close();
    Hooks().close.Real(listener_);
  }
  PeerSocket(const PeerSocket&) = delete;
  PeerSocket& operator=(const PeerSocket&) = delete;

  // The connect of `descriptor`, as the system call reports it.
  int Connect(int descriptor) {
    Close();
    const int result = Hooks().connect.Real(descriptor, Address(), sizeof address_);
    const int error = errno;
    connection_ = accept(listener_, nullptr, nullptr);
    EXPECT_GE(connection_, 0);
    Send(says);
    if (ends && answers.empty()) shutdown(connection_, SHUT_WR);
    errno = error;
    return result;
  }
  void Answer() {
    if (answers.empty()) return;
    Send(answers);
    if (ends) shutdown(connection_, SHUT_WR);
  }
  // Instead of an orderly end.
  void Reset() {
    const linger at_once = {1, 0};
    Hooks().setsockopt.Real(connection_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    Close();
  }
  // All that came, once the other side has closed.
  std::string Received() const { return ReceiveUntilEnd(connection_); }

  std::string says;
  std::string answers;
  bool ends = true;

 private:
  sockaddr* Address() { return reinterpret_cast<sockaddr*>(&address_); }
  void Send(const std::string& bytes) const {
    EXPECT_EQ(Hooks().send.Real(connection_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  void Close() {
    if (connection_ >= 0) Hooks().close.Real(connection_);
    connection_ = -1;
  }

  const int listener_;
  sockaddr_in address_{};
  int connection_ = -1;
};
