// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// One request and its answer, over a pair of sockets.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "web/HttpConnection.h"

namespace {

using std::chrono::seconds;

// Something that has always more to tell.
class Spring : public Feed {
 public:
  bool HasMore() const override { return true; }
  void Fill(std::string& out) override { out.append(kPiece, 'x'); }
  bool IsLiving() const override { return true; }
};

// Something that has as much to tell as a test says.
class Drops : public Feed {
 public:
  explicit Drops(const int& drops) : drops_(drops) {}
  bool HasMore() const override { return told_ < drops_; }
  void Fill(std::string& out) override { out += "drop " + std::to_string(++told_); }
  bool IsLiving() const override { return true; }

 private:
  const int& drops_;
  int told_ = 0;
};

class Springs : public Site::Content {
 public:
  int drops = 0;

  std::string Members() const override { return "{}\n"; }
  std::string Metrics() const override { return ""; }
  std::unique_ptr<Feed> Rows(const std::optional<std::string>&) const override {
    return std::make_unique<Drops>(drops);
  }
  std::unique_ptr<Feed> Events() override { return std::make_unique<Spring>(); }
};

class HttpConnectionTest : public testing::Test {
 protected:
  HttpConnectionTest() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
    browser_ = FileDescriptor(ends[0]);
    connection_ = std::make_unique<HttpConnection>(loop_, FileDescriptor(ends[1]), site_);
  }

  void Ask(const std::string& path) {
    const std::string request = "GET " + path + " HTTP/1.1\r\nHost: localhost\r\n\r\n";
    EXPECT_EQ(send(browser_.Get(), request.data(), request.size(), 0), static_cast<ssize_t>(request.size()));
    Turn();
  }

  // Until nothing more happens, and no deadline is due.
  void Turn() {
    for (int i = 0; i < 1000; ++i) loop_.Turn(Clock::now());
  }

  std::string Taken() {
    std::string text(1 << 20, '\0');
    const ssize_t size = recv(browser_.Get(), text.data(), text.size(), 0);
    text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    return text;
  }

  Loop loop_;
  Springs springs_;
  Site site_{springs_, "press"};
  FileDescriptor browser_;
  std::unique_ptr<HttpConnection> connection_;
};

TEST_F(HttpConnectionTest, AnAnswerIsGivenWholeAndThenTheOtherSideMayClose) {
  Ask("/members");

  const std::string answer = Taken();
  EXPECT_EQ(answer.rfind("HTTP/1.1 200 OK\r\n", 0), 0U);
  EXPECT_EQ(answer.substr(answer.size() - 3), "{}\n");
  EXPECT_FALSE(connection_->IsEnded());
  browser_ = FileDescriptor();
  Turn();
  EXPECT_TRUE(connection_->IsEnded());
}

TEST_F(HttpConnectionTest, AReaderThatTakesNothingIsWaitedForWithoutSpinning) {
  Ask("/events");

  EXPECT_TRUE(connection_->IsBrowser());
  EXPECT_GT(connection_->Deadline(), Clock::now() + seconds(20));
  EXPECT_LE(connection_->Deadline(), Clock::now() + seconds(30));
  EXPECT_NE(connection_->Awaited().events & POLLOUT, 0);
  EXPECT_FALSE(Taken().empty());
  Turn();
  EXPECT_FALSE(Taken().empty());  // It goes on where it has stopped.
}

TEST_F(HttpConnectionTest, APieceThatFollowsAnotherAtOnceWaitsForALittle) {
  Ask("/rows");
  Taken();
  springs_.drops = 1;
  Turn();
  EXPECT_EQ(Taken(), "drop 1");

  springs_.drops = 2;

  EXPECT_EQ(connection_->Awaited().events & POLLOUT, 0);
  EXPECT_LE(connection_->Deadline(), Clock::now() + std::chrono::milliseconds(50));
  std::string taken;
  for (int turns = 0; taken.empty() && turns < 10; ++turns) {
    loop_.Turn(TimePoint::max());
    taken = Taken();
  }
  EXPECT_EQ(taken, "drop 2");
}

TEST_F(HttpConnectionTest, WhoHasAskedForNothingIsWaitedForAFewSeconds) {
  EXPECT_GT(connection_->Deadline(), Clock::now());
  EXPECT_LE(connection_->Deadline(), Clock::now() + seconds(5));
  connection_->OnDeadline();  // Too early.
  EXPECT_FALSE(connection_->IsEnded());
}

TEST_F(HttpConnectionTest, AReaderThatLeavesIsLetGo) {
  Ask("/events");
  browser_ = FileDescriptor();
  Turn();

  EXPECT_TRUE(connection_->IsEnded());
}

}  // namespace
