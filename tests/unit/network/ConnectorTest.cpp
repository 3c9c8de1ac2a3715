// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <fcntl.h>
#include <gmock/gmock.h>
#include <netinet/in.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "PeerSocket.h"
#include "ReceiverCalls.h"
#include "TestMember.h"
#include "network/Connector.h"
#include "network/ServerSockets.h"
#include "support/FailWith.h"
#include "support/HookedHere.h"
#include "support/LogRecorder.h"

using namespace std::chrono_literals;

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

const std::string kSuccess = "7 tblrcvr.sock.conn.succ: TableReceiver: connect succeeded";

// Connects to 224.1.2.3:4660, a number above 2^31 that no connection ever leaves for, on the thread of the test.
class ConnectorTest : public testing::Test {
 protected:
  bool Connect(std::chrono::nanoseconds time_limit = 5s) {
    return Connector(socket_.Get(), {0xE0010203, 4660}, member_->done_descriptor).Connect(time_limit);
  }
  // Those of the connector: the first is of the test, which makes the socket.
  std::vector<std::string> Calls() const {
    const std::vector<std::string> calls = calls_.Calls();
    return {calls.begin() + 1, calls.end()};
  }
  int Flags() const { return Hooks().fcntl.Real(socket_.Get(), F_GETFL, 0); }
  // As "7 tag: text".
  std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    for (const LogLine& line : log_.Lines()) {
      lines.push_back(std::to_string(static_cast<int>(line.level)) + " " + line.tag + ": " + line.text);
    }
    return lines;
  }

  TestMember member_;
  PeerSocket peer_;
  LogRecorder log_;
  ReceiverCalls calls_{peer_, member_->done_descriptor};
  FileDescriptor socket_ = OpenSocket(SOCK_STREAM);
};

// For ReceiverCalls::polls.
int TimesOut(pollfd*) { return 0; }
int IsInterrupted(pollfd*) { return FailWith{EINTR}(); }

std::function<int(int, sockaddr*, socklen_t*)> OwnAddressIs(const PeerPlace& place) {
  return [place](int, sockaddr* own, socklen_t*) {
    *reinterpret_cast<sockaddr_in*>(own) = ToSocketAddress(place);
    return 0;
  };
}

}  // namespace

TEST_F(ConnectorTest, ConnectIsMadeOfTheseCallsInThisOrder) {
  EXPECT_TRUE(Connect());

  EXPECT_EQ(Calls(), Join({kConnect, kWait, kCheck, kBlockAgain}));
  EXPECT_THAT(Lines(), ElementsAre(kSuccess));
}

TEST_F(ConnectorTest, ConnectThatSucceedsAtOnceIsNotWaitedFor) {
  calls_.connects_at_once = true;

  EXPECT_TRUE(Connect());

  EXPECT_EQ(Calls(), Join({kConnect, kBlockAgain}));
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(ConnectorTest, ConnectThatFailsAtOnceIsASilentFailureWithABlockingSocket) {
  calls_.Fail("connect(224.1.2.3:4660, 16)", ENETUNREACH);

  EXPECT_FALSE(Connect());

  EXPECT_EQ(Calls(), Join({kConnect, kBlockAgain}));
  EXPECT_THAT(Lines(), IsEmpty());
}

// The connection of a socket to itself.

TEST_F(ConnectorTest, ConnectionOfASocketToItselfIsAFailure) {
  const HookedHere<int(int, sockaddr*, socklen_t*)> getsockname{Hooks().getsockname, OwnAddressIs({0xE0010203, 4660})};

  EXPECT_FALSE(Connect());

  EXPECT_THAT(Lines(), ElementsAre(kSuccess));
}

TEST_F(ConnectorTest, PeerWhoseAddressAloneIsOursIsAnother) {
  const HookedHere<int(int, sockaddr*, socklen_t*)> getsockname{Hooks().getsockname, OwnAddressIs({0xE0010203, 4661})};

  EXPECT_TRUE(Connect());
}

TEST_F(ConnectorTest, PeerWhosePortAloneIsOursIsAnother) {
  const HookedHere<int(int, sockaddr*, socklen_t*)> getsockname{Hooks().getsockname, OwnAddressIs({0xE0010204, 4660})};

  EXPECT_TRUE(Connect());
}

TEST_F(ConnectorTest, PeerIsAnotherWhenTheOwnAddressCannotBeTold) {
  const HookedHere<int(int, sockaddr*, socklen_t*)> getsockname{Hooks().getsockname, FailWith{ENOBUFS}};

  EXPECT_TRUE(Connect());
}

// A socket that cannot be made non-blocking.

TEST_F(ConnectorTest, FlagsThatCannotBeReadAreFollowedByABlockingConnect) {
  calls_.Fail("fcntl(F_GETFL)", EBADF);

  EXPECT_TRUE(Connect());

  EXPECT_THAT(Calls(), ElementsAre("fcntl(F_GETFL)", "connect(224.1.2.3:4660, 16)"));
  EXPECT_THAT(Lines(), ElementsAre("6 tblrcvr.sock.nonblck.getfl: TableReceiver: fcntl failed getting flags: 9"));
}

TEST_F(ConnectorTest, FlagsThatCannotBeSetAreFollowedByABlockingConnect) {
  calls_.Fail("fcntl(F_SETFL, O_RDWR | O_NONBLOCK)", EPERM);

  EXPECT_TRUE(Connect());

  EXPECT_EQ(Calls(), kConnect);
  EXPECT_THAT(Lines(), ElementsAre("6 tblrcvr.sock.nonblck.setfl: TableReceiver: fcntl failed setting O_NONBLOCK: 1"));
}

TEST_F(ConnectorTest, BlockingConnectThatFailsIsASilentFailure) {
  calls_.Fail("fcntl(F_GETFL)", EBADF);
  calls_.Fail("connect(224.1.2.3:4660, 16)", ETIMEDOUT);

  EXPECT_FALSE(Connect());

  EXPECT_THAT(Calls(), ElementsAre("fcntl(F_GETFL)", "connect(224.1.2.3:4660, 16)"));
  EXPECT_THAT(Lines(), ElementsAre("6 tblrcvr.sock.nonblck.getfl: TableReceiver: fcntl failed getting flags: 9"));
}

// Waiting for the connection.

TEST_F(ConnectorTest, ConnectThatTimesOutIsASilentFailure) {
  calls_.polls = {TimesOut};

  EXPECT_FALSE(Connect());

  EXPECT_EQ(Calls(), Join({kConnect, kWait, kBlockAgain}));
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(ConnectorTest, TimeLimitIsCutToWholeMilliseconds) {
  calls_.polls = {TimesOut};

  EXPECT_FALSE(Connect(1999999ns));

  EXPECT_THAT(Calls(), Contains("poll(done POLLIN, socket POLLOUT, 1)"));
}

TEST_F(ConnectorTest, StopWhileConnectingIsASilentFailure) {
  member_.SignalDone();

  EXPECT_FALSE(Connect());

  EXPECT_EQ(Calls(), Join({kConnect, kWait, kBlockAgain}));
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(ConnectorTest, AnyEventOfTheDonePipeStopsTheConnecting) {
  calls_.polls = {[](pollfd* entries) {
    entries[0].revents = POLLHUP;
    entries[1].revents = POLLOUT;
    return 2;
  }};

  EXPECT_FALSE(Connect());

  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(ConnectorTest, WaitWithoutAnyEventIsASilentFailure) {
  calls_.polls = {[](pollfd*) { return 1; }};

  EXPECT_FALSE(Connect());

  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(ConnectorTest, InterruptedWaitIsRepeatedWithTheSameTimeOut) {
  calls_.polls = {IsInterrupted, IsInterrupted};

  EXPECT_TRUE(Connect());

  EXPECT_EQ(Calls(), Join({kConnect, kWait, kWait, kWait, kCheck, kBlockAgain}));
}

TEST_F(ConnectorTest, WaitThatFailsIsASilentFailure) {
  calls_.polls = {[](pollfd*) { return FailWith{ENOMEM}(); }};

  EXPECT_FALSE(Connect());

  EXPECT_EQ(Calls(), Join({kConnect, kWait, kBlockAgain}));
  EXPECT_THAT(Lines(), IsEmpty());
}

// The result.

TEST_F(ConnectorTest, ResultOfTheConnectThatCannotBeReadIsLogged) {
  calls_.Fail("getsockopt(SOL_SOCKET, SO_ERROR)", ENOBUFS);

  EXPECT_FALSE(Connect());

  EXPECT_EQ(Calls(), Join({kConnect, kWait, kCheck, kBlockAgain}));
  EXPECT_THAT(Lines(), ElementsAre("6 tblrcvr.sock.opt.err: TableReceiver: getsockopt failed checking SO_ERROR: 105"));
}

TEST_F(ConnectorTest, RefusedConnectIsLoggedWithErrnoAndNotWithTheErrorOfTheSocket) {
  const HookedHere getsockopt(Hooks().getsockopt, [](int, int, int, void* value, socklen_t*) {
    *static_cast<int*>(value) = ECONNREFUSED;
    errno = EPROTO;
    return 0;
  });

  EXPECT_FALSE(Connect());

  EXPECT_EQ(Calls(), Join({kConnect, kWait, kBlockAgain}));
  EXPECT_THAT(Lines(), ElementsAre("6 tblrcvr.sock.conn.err: TableReceiver: connect failed: 71"));
}

TEST_F(ConnectorTest, PortThatNobodyListensOnRefusesTheConnect) {
  const int closed = Hooks().socket.Real(AF_INET, SOCK_STREAM, 0);  // Bound, so that nobody else gets the port.
  sockaddr_in address = ToSocketAddress({INADDR_LOOPBACK, 0});
  socklen_t size = sizeof address;
  ASSERT_EQ(Hooks().bind.Real(closed, Generic(address), size), 0);
  ASSERT_EQ(Hooks().getsockname.Real(closed, Generic(address), &size), 0);
  const HookedHere connect(Hooks().connect, [&](int descriptor, const sockaddr*, socklen_t) {
    return Hooks().connect.Real(descriptor, Generic(address), sizeof address);
  });

  EXPECT_FALSE(Connect());

  EXPECT_THAT(Lines(), ElementsAre(StartsWith("6 tblrcvr.sock.conn.err: TableReceiver: connect failed: ")));
  Hooks().close.Real(closed);
}

// The socket afterwards.

TEST_F(ConnectorTest, SocketIsBlockingAgainAfterwards) {
  EXPECT_TRUE(Connect());

  EXPECT_EQ(Flags(), O_RDWR);
}

TEST_F(ConnectorTest, FlagsThatCannotBeReadAgainAreOnlyLogged) {
  calls_.Fail("fcntl(F_GETFL)", EBADF, 2);

  EXPECT_TRUE(Connect());

  EXPECT_EQ(Calls(), Join({kConnect, kWait, kCheck, {"fcntl(F_GETFL)"}}));
  EXPECT_THAT(Lines(),
              ElementsAre(kSuccess, "6 tblrcvr.sock.blck.getfl: TableReceiver: fcntl failed getting flags: 9"));
}

TEST_F(ConnectorTest, FlagsThatCannotBeSetBackAreOnlyLogged) {
  calls_.Fail("fcntl(F_SETFL, O_RDWR)", EPERM);

  EXPECT_TRUE(Connect());

  EXPECT_THAT(Lines(),
              ElementsAre(kSuccess, "6 tblrcvr.sock.blck.setfl: TableReceiver: fcntl failed clearing O_NONBLOCK: 1"));
}

TEST_F(ConnectorTest, FlagsAreSetBackAlsoForAConnectThatFailedAndThatIsLoggedToo) {
  calls_.polls = {TimesOut};
  calls_.Fail("fcntl(F_SETFL, O_RDWR)", EPERM);

  EXPECT_FALSE(Connect());

  EXPECT_THAT(Lines(), ElementsAre("6 tblrcvr.sock.blck.setfl: TableReceiver: fcntl failed clearing O_NONBLOCK: 1"));
}
