// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <future>
#include <memory>
#include <optional>
#include <string>

#include "PeerEnd.h"
#include "network/SocketStream.h"
#include "support/IsKept.h"
#include "support/LogRecorder.h"
#include "support/Own.h"
#include "support/SystemCallHooks.h"

// For tests of one end of a connection: a socket with its stream, and a done pipe. The test itself is the peer.
class ConnectionTest : public testing::Test {
 protected:
  ConnectionTest() : done_(MakePipe()) { Connect(); }
  ~ConnectionTest() override {
    peer_.reset();
    for (const int descriptor : done_) close(descriptor);
  }

  // A connection in place of the one there is. A death test begins with it: under an emulator it runs in a forked
  // child, where the descriptors of the library are closed.
  void Connect() {
    peer_.reset();
    int pair[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    stream_ = std::make_unique<SocketStream>(Own(pair[0]), done_[0]);
    peer_.emplace(pair[1]);
  }
  FILE* OpenStream() {
    EXPECT_TRUE(stream_->Open());
    return stream_->File();
  }
  void CloseStream() { stream_.reset(); }
  Cookie& GetCookie() { return stream_->GetCookie(); }

  // As the server does when it stops.
  void SignalDone() const { ASSERT_EQ(Hooks().write.Real(done_[1], "D", 1), 1); }
  // Leaves no room in the connection: the next write has to wait. Returns how many bytes now come first.
  std::size_t FillConnection() const {
    const std::string bytes(65536, '-');
    std::size_t filled = 0;
    for (;;) {
      const ssize_t taken = Hooks().send.Real(stream_->Socket(), bytes.data(), bytes.size(), MSG_DONTWAIT);
      if (taken <= 0) return filled;
      filled += static_cast<std::size_t>(taken);
    }
  }

  LogRecorder log_;
  std::optional<PeerEnd> peer_;
  const std::array<int, 2> done_;
  std::unique_ptr<SocketStream> stream_;

 private:
  static std::array<int, 2> MakePipe() {
    std::array<int, 2> ends;
    EXPECT_EQ(pipe(ends.data()), 0);
    return ends;
  }
};

// Tells that a thread has come to wait, by a hook on poll; a stream's thread has lent out its lock by then.
class WaitingInPoll {
 public:
  WaitingInPoll()
      : hooked_(Hooks().poll, [this](pollfd* entries, nfds_t count, int time_out) {
          if (!told_.exchange(true)) waiting_.set_value();
          return Hooks().poll.Real(entries, count, time_out);
        }) {}

  bool Eventually() { return IsKept(waiting_); }

 private:
  std::atomic<bool> told_{false};
  std::promise<void> waiting_;
  Hooked<int(pollfd*, nfds_t, int)> hooked_;
};
