// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <optional>
#include <string>

#include "PeerEnd.h"
#include "network/PeerPlace.h"
#include "support/SystemCallHooks.h"

// A peer that accepts a connection on loopback, sends `says` at once and `answers` when it is told to, and then ends
// its half of the stream, if it `ends`. All on the thread that connects to it.
class PeerSocket {
 public:
  PeerSocket() : listener_(Hooks().socket.Real(AF_INET, SOCK_STREAM, 0)) {
    socklen_t size = sizeof address_;
    EXPECT_EQ(Hooks().bind.Real(listener_, Generic(address_), size), 0);
    EXPECT_EQ(Hooks().listen.Real(listener_, 10), 0);
    EXPECT_EQ(Hooks().getsockname.Real(listener_, Generic(address_), &size), 0);
  }
  ~PeerSocket() { Hooks().close.Real(listener_); }
  PeerSocket(const PeerSocket&) = delete;
  PeerSocket& operator=(const PeerSocket&) = delete;

  // The connect of `descriptor`, as the system call reports it.
  int Connect(int descriptor) {
    connection_.reset();
    const int result = Hooks().connect.Real(descriptor, Generic(address_), sizeof address_);
    const int error = errno;
    connection_.emplace(accept(listener_, nullptr, nullptr));
    connection_->Send(says);
    if (ends && answers.empty()) connection_->End();
    errno = error;
    return result;
  }
  void Answer() {
    if (answers.empty()) return;
    connection_->Send(answers);
    if (ends) connection_->End();
  }
  void Reset() { connection_->Reset(); }
  // All that came, once the other side has closed.
  std::string Received() const { return connection_->ReceiveUntilEnd(); }

  std::string says;
  std::string answers;
  bool ends = true;

 private:
  const int listener_;
  sockaddr_in address_ = ToSocketAddress({INADDR_LOOPBACK, 0});
  std::optional<PeerEnd> connection_;
};
