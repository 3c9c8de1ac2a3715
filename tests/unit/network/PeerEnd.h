// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <string>

#include "support/SystemCallHooks.h"

// The peer's end of a connection. What the peer does passes by the hooks. It waits no longer than ten seconds for what
// it receives, which only bounds a failing run.
class PeerEnd {
 public:
  // Takes over the descriptor.
  explicit PeerEnd(int descriptor) : descriptor_(descriptor) {
    EXPECT_GE(descriptor_, 0);
    const timeval deadline = {10, 0};
    Hooks().setsockopt.Real(descriptor_, SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof deadline);
  }
  ~PeerEnd() { Close(); }
  PeerEnd(const PeerEnd&) = delete;
  PeerEnd& operator=(const PeerEnd&) = delete;

  void Send(const std::string& bytes) const {
    EXPECT_EQ(Hooks().send.Real(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  // Sends no more.
  void End() const { shutdown(descriptor_, SHUT_WR); }
  void Close() {
    if (descriptor_ >= 0) Hooks().close.Real(descriptor_);
    descriptor_ = -1;
  }
  // Instead of an orderly end.
  void Reset() {
    const linger at_once = {1, 0};
    Hooks().setsockopt.Real(descriptor_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    Close();
  }

  // Fewer bytes when the stream ends, or nothing more comes.
  std::string Receive(std::size_t size) const {
    std::string bytes(size, '\0');
    std::size_t received = 0;
    while (received < size) {
      const ssize_t piece = Hooks().recv.Real(descriptor_, &bytes[received], size - received, 0);
      if (piece <= 0) break;
      received += static_cast<std::size_t>(piece);
    }
    bytes.resize(received);
    return bytes;
  }
  // What has arrived already.
  std::string ReceiveWaiting() const {
    std::string bytes(65536, '\0');
    const ssize_t received = Hooks().recv.Real(descriptor_, bytes.data(), bytes.size(), MSG_DONTWAIT);
    bytes.resize(received < 0 ? 0 : static_cast<std::size_t>(received));
    return bytes;
  }
  // All of the stream, which the other side ends.
  std::string ReceiveUntilEnd() const {
    std::string received;
    for (;;) {
      char piece[4096];
      const ssize_t size = Hooks().recv.Real(descriptor_, piece, sizeof piece, 0);
      if (size < 0) ADD_FAILURE() << "the stream did not end: errno " << errno;
      if (size <= 0) return received;
      received.append(piece, static_cast<std::size_t>(size));
    }
  }
  // False when something comes, or nothing does for ten seconds.
  bool IsEnded() const {
    char byte;
    const ssize_t received = Hooks().recv.Real(descriptor_, &byte, 1, 0);
    return received == 0 || (received < 0 && errno == ECONNRESET);
  }

 private:
  int descriptor_;
};
