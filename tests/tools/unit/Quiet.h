// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <string_view>
#include <utility>

#include "net/Acceptor.h"
#include "support/FailWith.h"
#include "support/SystemCallHooks.h"
#include "wire/Record.h"

// A network without anybody else, and a time that a test drives.

// They only bound a failing run.
inline constexpr std::chrono::milliseconds kTurn{1};
inline constexpr int kMostTurns = 60'000;

// The clock stands until a test moves it.
struct DrivenClock {
  TimePoint now = std::chrono::steady_clock::now();
  Hooked<TimePoint()> hook{Hooks().now, [this] { return now; }};
};

// Nothing is heard, and nothing leaves this process but connections to itself.
struct QuietNetwork {
  Hooked<int(int, const sockaddr*, socklen_t)> bind{Hooks().bind, FailWith{EADDRINUSE}};
  Hooked<ssize_t(int, const void*, std::size_t, int, const sockaddr*, socklen_t)> send{
      Hooks().sendto,
      [](int, const void*, std::size_t size, int, const sockaddr*, socklen_t) { return static_cast<ssize_t>(size); }};
};

// A member that sends what a test wants.
class Fake : private Acceptor::Owner {
 public:
  explicit Fake(Loop& loop) : acceptor_(loop, *this) {}

  Place At() const { return {INADDR_LOOPBACK, acceptor_.Port()}; }
  bool IsVisited() const { return connection_.Get() >= 0; }
  // How many bytes, at most one, have come; 0 at the end of the connection, -1 before anything comes.
  ssize_t Received() const {
    char byte = 0;
    return recv(connection_.Get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  }
  void HangUp() { connection_ = FileDescriptor(); }
  void Send(std::string_view a, std::string_view b) const {
    std::string record;
    AppendRecord(record, {a, b});
    Send(record);
  }
  void Send(const std::string& bytes) const {
    EXPECT_EQ(send(connection_.Get(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
  }

 private:
  void OnAccepted(FileDescriptor socket, std::uint32_t) override { connection_ = std::move(socket); }

  Acceptor acceptor_;
  FileDescriptor connection_;
};
