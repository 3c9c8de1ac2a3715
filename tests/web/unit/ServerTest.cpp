// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Who makes room when there are too many connections, and how it is told. The clock stands, so none of them ends by
// itself.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string>
#include <vector>

#include "support/SystemCallHooks.h"
#include "web/HttpServer.h"

namespace {

constexpr std::size_t kMostConnections = 64;

class HttpServerTest : public testing::Test {
 protected:
  FileDescriptor Connect() {
    FileDescriptor connected(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int little = 4096;
    EXPECT_EQ(setsockopt(connected.Get(), SOL_SOCKET, SO_RCVBUF, &little, sizeof little), 0);
    const sockaddr_in address = ToSocketAddress({INADDR_LOOPBACK, server_.Port()});
    EXPECT_EQ(connect(connected.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return connected;
  }

  void Ask(const FileDescriptor& connected, const std::string& path) {
    const std::string request = "GET " + path + " HTTP/1.1\r\nHost: localhost\r\n\r\n";
    send(connected.Get(), request.data(), request.size(), MSG_NOSIGNAL);
  }

  // So much, or all that comes until the other side ends the connection.
  std::string Take(const FileDescriptor& connected, std::size_t most = std::string::npos) {
    std::string taken;
    for (int i = 0; i < kMostTurns && taken.size() < most; ++i) {
      char piece[4096];
      const ssize_t size = recv(connected.Get(), piece, std::min(sizeof piece, most - taken.size()), MSG_DONTWAIT);
      error_ = size < 0 ? errno : 0;
      if (size == 0 || (size < 0 && errno != EAGAIN)) break;
      if (size > 0) taken.append(piece, static_cast<std::size_t>(size));
      loop_.Turn(now_);
    }
    return taken;
  }

  bool IsAnswered(const FileDescriptor& connected) {
    Ask(connected, "/members");
    return Take(connected).rfind("HTTP/1.1 200 OK\r\n", 0) == 0;
  }

  static constexpr std::size_t kMuch = 1 << 19;  // More than the system keeps for a reader.
  static constexpr int kMostTurns = 1'000'000;   // It only bounds a failing run.
  const TimePoint now_ = std::chrono::steady_clock::now();
  const Hooked<TimePoint()> hook_{Hooks().now, [this] { return now_; }};
  int error_ = 0;  // With which the last attempt to take something has ended, or 0.
  Loop loop_;
  WebModel model_;
  HttpServer server_{loop_, {INADDR_LOOPBACK, 0}, model_, "{}\n", "press"};
};

TEST_F(HttpServerTest, WhoHasAnAnswerMakesRoomBeforeWhoHasNotAskedYet) {
  const FileDescriptor asking = Connect();
  std::vector<FileDescriptor> answered;

  while (answered.size() < kMostConnections) {
    answered.push_back(Connect());
    EXPECT_TRUE(IsAnswered(answered.back()));  // And it stays.
  }

  EXPECT_TRUE(IsAnswered(asking));
}

TEST_F(HttpServerTest, WhoHasNotAskedYetMakesRoomBeforeWhoReads) {
  const std::string value(kMuch, 'x');
  model_.AddMember({}, 1);
  model_.SetRow({}, {"status", "text", value, 1, true});
  const FileDescriptor reader = Connect();
  Ask(reader, "/rows");
  EXPECT_EQ(Take(reader, 1), "H");
  std::vector<FileDescriptor> silent;

  while (silent.size() < kMostConnections) silent.push_back(Connect());

  EXPECT_TRUE(IsAnswered(silent.back()));
  EXPECT_GT(Take(reader).size(), value.size());
  EXPECT_EQ(error_, 0);
}

TEST_F(HttpServerTest, AnAnswerThatIsCutEndsWithAReset) {
  model_.AddMember({}, 1);
  model_.SetRow({}, {"status", "text", std::string(kMuch, 'x'), 1, true});
  std::vector<FileDescriptor> readers;
  while (readers.size() <= kMostConnections) {
    readers.push_back(Connect());
    Ask(readers.back(), "/rows");
    EXPECT_EQ(Take(readers.back(), 1), "H");
  }

  EXPECT_LT(Take(readers.front()).size(), kMuch);
  EXPECT_EQ(error_, ECONNRESET);
}

}  // namespace
