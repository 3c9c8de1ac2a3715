// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// One request and its answer, over a pair of sockets. The clock stands until a test moves it.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "support/SystemCallHooks.h"
#include "web/HttpConnection.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;

// Something that has always more to tell.
class Spring : public Feed {
 public:
  explicit Spring(bool is_living) : is_living_(is_living) {}
  bool HasMore() const override { return true; }
  void Fill(std::string& out) override { out.append(kPiece, 'x'); }
  bool IsLiving() const override { return is_living_; }

 private:
  const bool is_living_;
};

// Something that has as much to tell as a test says.
class Drops : public Feed {
 public:
  explicit Drops(const int& drops) : drops_(drops) {}
  bool HasMore() const override { return told_ < drops_; }
  void Fill(std::string& out) override { out += "drop " + std::to_string(++told_); }
  bool IsLiving() const override { return true; }
  std::string SignOfLife() const override { return "alive"; }

 private:
  const int& drops_;
  int told_ = 0;
};

// Something that has an end.
class Line : public Feed {
 public:
  bool HasMore() const override { return !told_; }
  void Fill(std::string& out) override {
    out += "{}\n";
    told_ = true;
  }

 private:
  bool told_ = false;
};

class Springs : public Site::Content {
 public:
  int drops = 0;

  std::unique_ptr<Feed> Members() const override { return std::make_unique<Line>(); }
  std::unique_ptr<Feed> Metrics() const override { return std::make_unique<Line>(); }
  std::unique_ptr<Feed> Rows(const std::optional<std::string>& table) const override {
    if (table) return std::make_unique<Spring>(false);
    return std::make_unique<Drops>(drops);
  }
  std::unique_ptr<Feed> Events() override { return std::make_unique<Spring>(true); }
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
    for (int i = 0; i < 1000; ++i) loop_.Turn(now_);
  }

  void Pass(Clock::duration time) {
    now_ += time;
    Turn();
  }

  std::string Taken() {
    std::string text(1 << 20, '\0');
    const ssize_t size = recv(browser_.Get(), text.data(), text.size(), 0);
    text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    return text;
  }

  TimePoint now_ = std::chrono::steady_clock::now();
  const Hooked<TimePoint()> hook_{Hooks().now, [this] { return now_; }};
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

TEST_F(HttpConnectionTest, AfterItsAnswerTheOtherSideHasTwoSecondsToClose) {
  Ask("/members");

  Pass(milliseconds(1999));
  EXPECT_FALSE(connection_->IsEnded());
  Pass(milliseconds(1));
  EXPECT_TRUE(connection_->IsEnded());
}

TEST_F(HttpConnectionTest, AReaderThatTakesNothingIsLetGoAfterThirtySeconds) {
  Ask("/events");

  EXPECT_TRUE(connection_->IsBrowser());
  EXPECT_EQ(connection_->Deadline(), now_ + seconds(30));
  EXPECT_NE(connection_->Awaited().events & POLLOUT, 0);
  Pass(milliseconds(29'999));
  EXPECT_FALSE(connection_->IsEnded());
  Pass(milliseconds(1));
  EXPECT_TRUE(connection_->IsEnded());
}

TEST_F(HttpConnectionTest, AReaderOfEventsMayBeAsSlowAsItIs) {
  Ask("/events");

  for (int i = 0; i < 20; ++i) {
    Pass(milliseconds(29'999));
    EXPECT_FALSE(Taken().empty());  // It goes on where it has stopped.
    Turn();
  }
  EXPECT_TRUE(connection_->IsBrowser());
}

TEST_F(HttpConnectionTest, AReaderOfSomethingElseHasFiveMinutes) {
  Ask("/rows?table=status");

  EXPECT_FALSE(connection_->IsBrowser());
  for (int i = 1; i < minutes(5) / seconds(20); ++i) {
    Pass(seconds(20));
    EXPECT_FALSE(Taken().empty());
    Turn();
  }
  EXPECT_FALSE(connection_->IsEnded());
  Pass(seconds(20));
  EXPECT_TRUE(connection_->IsEnded());
}

TEST_F(HttpConnectionTest, AReaderThatIsToldNothingGetsASignOfLifeEveryTenSeconds) {
  Ask("/rows");
  Taken();

  for (int i = 0; i < 10; ++i) {
    Pass(milliseconds(9'999));
    EXPECT_EQ(Taken(), "");
    Pass(milliseconds(1));
    EXPECT_EQ(Taken(), "alive");
  }
}

TEST_F(HttpConnectionTest, AReaderThatIsToldSomethingAllTheTimeGetsTheSameSigns) {
  Ask("/rows");
  Taken();

  for (int i = 1; i < 20; i += 2) {
    springs_.drops = i;
    Pass(seconds(5));
    EXPECT_EQ(Taken(), "drop " + std::to_string(i));
    springs_.drops = i + 1;
    Pass(seconds(5));
    EXPECT_EQ(Taken(), "alivedrop " + std::to_string(i + 1));
  }
}

TEST_F(HttpConnectionTest, APieceThatFollowsAnotherAtOnceWaitsForALittle) {
  Ask("/rows");
  Taken();
  springs_.drops = 1;
  Turn();
  EXPECT_EQ(Taken(), "drop 1");

  springs_.drops = 2;

  EXPECT_EQ(connection_->Awaited().events & POLLOUT, 0);
  EXPECT_EQ(connection_->Deadline(), now_ + milliseconds(50));
  Pass(milliseconds(49));
  EXPECT_EQ(Taken(), "");
  Pass(milliseconds(1));
  EXPECT_EQ(Taken(), "drop 2");
}

TEST_F(HttpConnectionTest, WhoHasAskedForNothingWholeIsGivenUpAfterFiveSeconds) {
  EXPECT_EQ(send(browser_.Get(), "GET / HTTP/1.1\r\n", 16, 0), 16);
  EXPECT_TRUE(connection_->IsAsking());

  Pass(milliseconds(4'999));
  EXPECT_FALSE(connection_->IsEnded());
  Pass(milliseconds(1));
  EXPECT_TRUE(connection_->IsEnded());
}

TEST_F(HttpConnectionTest, AReaderThatLeavesIsLetGo) {
  Ask("/events");
  browser_ = FileDescriptor();
  Turn();

  EXPECT_TRUE(connection_->IsEnded());
}

}  // namespace
