// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <fcntl.h>
#include <gmock/gmock.h>
#include <netinet/tcp.h>

#include <csignal>
#include <new>
#include <optional>
#include <stdexcept>
#include <vector>

#include "PeerSocket.h"
#include "ReceiverCalls.h"
#include "RecordingTable.h"
#include "Records.h"
#include "Registration.h"
#include "TestMember.h"
#include "network/ActiveESNs.h"
#include "network/StopExceptions.h"
#include "network/TableReceiver.h"
#include "support/Bytes.h"
#include "support/FailWith.h"
#include "support/HookedHere.h"
#include "support/LogRecorder.h"
#include "support/Says.h"

using namespace std::chrono_literals;

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::KilledBySignal;
using testing::StartsWith;
using Varnix::LogLevel;
using Varnix::Row;

// A row: 4 and 2 bytes.
const std::string kRow = Bytes(
    "\x00\x40\x00\x02"
    "\x01"
    "abc"
    "on");

// Receives from 224.1.2.3:4660, a number above 2^31 that no connection ever leaves for, on the thread of the test.
class TableReceiverTest : public testing::Test {
 protected:
  TableReceiverTest() { member_->receive_table = table_; }

  std::optional<PeerPlace> Receive(std::chrono::nanoseconds time_limit = 5s) {
    return ReceiveTable(*member_, {0xE0010203, 4660}, time_limit, esns_);
  }
  void ReceiveWithDefaultLogger() {
    SetLogHook(DefaultLogger);
    Receive();
  }
  bool IsRegistered(const std::string& uid) const { return !Registration(esns_, uid).Inserted(); }

  // As "7 tag: text", with R for the receiver and M for the member; those of tables are left out.
  std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    std::string receiver;
    for (const LogLine& line : log_.Lines()) {
      if (line.tag.rfind("tbl.", 0) == 0) continue;
      if (line.tag == "tblrcvr.ctor") receiver = line.text.substr(0, line.text.find(')') + 1);
      std::string text = line.text;
      Replace(text, receiver, "TableReceiver(R)");
      Replace(text, "(" + AddressOf(&member_) + ")", "(M)");
      lines.push_back(std::to_string(static_cast<int>(line.level)) + " " + line.tag + ": " + text);
    }
    return lines;
  }
  // Those between the first, of starting, and the last, of stopping.
  std::vector<std::string> LinesBetween() const {
    std::vector<std::string> lines = Lines();
    if (lines.size() < 2) return {"no lines"};
    EXPECT_EQ(lines.front(), "7 tblrcvr.ctor: TableReceiver(R) for db:3758162435:4660 starting");
    EXPECT_EQ(lines.back(), "7 tblrcvr.dtor: TableReceiver(R) stopping");
    return {lines.begin() + 1, lines.end() - 1};
  }

  const std::shared_ptr<RecordingTable> table_ = std::make_shared<RecordingTable>();
  TestMember member_;
  const std::shared_ptr<ActiveESNs> esns_ = std::make_shared<ActiveESNs>([] {});
  PeerSocket peer_;
  LogRecorder log_;
  ReceiverCalls calls_{peer_, member_->done_descriptor};

 private:
  static void Replace(std::string& text, const std::string& from, const std::string& to) {
    const std::size_t found = from.empty() ? std::string::npos : text.find(from);
    if (found != std::string::npos) text.replace(found, from.size(), to);
  }
};

// The calls of a stream, by what they are for; ReceiverCalls.h has those of connecting.
const std::vector<std::string> kSetUp = {"socket(AF_INET, SOCK_STREAM, 0)", "setsockopt(SOL_SOCKET, SO_KEEPALIVE, 1)",
                                         "setsockopt(IPPROTO_TCP, TCP_KEEPIDLE, 1)",
                                         "setsockopt(IPPROTO_TCP, TCP_KEEPINTVL, 1)",
                                         "setsockopt(IPPROTO_TCP, TCP_KEEPCNT, 3)"};
const std::string kUserTimeout = "setsockopt(IPPROTO_TCP, TCP_USER_TIMEOUT, 4000)";
const std::vector<std::string> kStream = {"fopencookie", kUserTimeout, "send 11", "close"};
const std::vector<std::string> kClose = {"close"};

}  // namespace

// A whole stream.

TEST_F(TableReceiverTest, StreamIsLoggedInTheseLines) {
  peer_.says = kRecordOfPeer;
  peer_.answers = kRow;

  Receive();

  EXPECT_THAT(Lines(), ElementsAre("7 tblrcvr.ctor: TableReceiver(R) for db:3758162435:4660 starting",
                                   "7 tblrcvr.sock.conn.succ: TableReceiver: connect succeeded",
                                   "7 tblrcvr.gotuid: TableReceiver(R) got uid: peer::proc",
                                   "7 tblsvr.fnd: TableServer for dev::proc::db(M) found peer: peer::proc "
                                   "3758162435:4660",
                                   "7 tblrcvr.strm.grp: TableReceiver(R) sending group=\"group\" port=65244",
                                   "7 tblrcvr.dtor: TableReceiver(R) stopping"));
}

TEST_F(TableReceiverTest, FormatsAreHandedToTheHookUnexpanded) {
  peer_.says = kRecordOfPeer;
  peer_.answers = kRow;

  Receive();

  EXPECT_THAT(log_.Formats("tblrcvr."), ElementsAre("TableReceiver(%p) for %s:%u:%u starting",         //
                                                    "TableReceiver: connect succeeded",                //
                                                    "TableReceiver(%p) got uid: %.*s::%s",             //
                                                    "TableReceiver(%p) sending group=\"%s\" port=%u",  //
                                                    "TableReceiver(%p) stopping"));
  EXPECT_THAT(log_.Formats("tblsvr.fnd"), ElementsAre("TableServer for %.*s::%s::%s(%p) found peer: %.*s::%s %u:%u"));
}

TEST_F(TableReceiverTest, StreamIsMadeOfTheseCallsInThisOrder) {
  peer_.says = kRecordOfPeer;
  peer_.answers = kRow;

  Receive();

  EXPECT_EQ(calls_.Calls(), Join({kSetUp, kConnect, kWait, kCheck, kBlockAgain, kStream}));
}

TEST_F(TableReceiverTest, GroupAndListeningPortAreSentAsOneRecord) {
  peer_.says = kRecordOfPeer;

  Receive();

  EXPECT_EQ(peer_.Received(), Bytes("\x00\x50\x00\x02"
                                    "group"
                                    "\xFE\xDC"));
}

TEST_F(TableReceiverTest, RowsAreSetIntoTheReceiveTableInTheirOrder) {
  peer_.says = kRecordOfPeer;
  peer_.answers = kRow + Bytes(
                             "\x00\x40\x00\x03"
                             "\x01"
                             "abc"
                             "off"
                             "\x00\x20\x00\x01"
                             "\x00"
                             "x"
                             "y");

  Receive();

  EXPECT_THAT(table_->rows, ElementsAre(Row("\x01"
                                            "abc",
                                            "on"),
                                        Row("\x01"
                                            "abc",
                                            "off"),
                                        Row(Bytes("\x00"
                                                  "x"),
                                            "y")));
}

TEST_F(TableReceiverTest, RowsWithZeroBytesAndWithEmptyFieldsAreSetAsTheyAre) {
  peer_.says = kRecordOfPeer;
  peer_.answers = Bytes(
      "\x00\x30\x00\x03"
      "a\0b"
      "\0\0\0"
      "\x00\x00\x00\x00"
      "\x00\x10\x00\x00"
      "k");

  Receive();

  EXPECT_THAT(table_->rows, ElementsAre(Row(Bytes("a\0b"), Bytes("\0\0\0")), Row("", ""), Row("k", "")));
}

TEST_F(TableReceiverTest, RowThatTheStreamCutsShortIsNotSet) {
  peer_.says = kRecordOfPeer;
  peer_.answers = kRow + kRow.substr(0, kRow.size() - 1);

  Receive();

  EXPECT_EQ(table_->rows.size(), 1U);
}

TEST_F(TableReceiverTest, PeerIsRegisteredWhileItsRowsAreReceived) {
  peer_.says = kRecordOfPeer;
  peer_.answers = kRow;
  bool registered = false;
  table_->before_set = [&](const Row&) { registered = IsRegistered("\x04peerproc"); };

  Receive();

  EXPECT_TRUE(registered);
}

TEST_F(TableReceiverTest, EndsByUnregisteringLoggingAndClosingInThisOrder) {
  peer_.says = kRecordOfPeer;
  SetLogHook([this](LogLevel, const char* tag, const char*, va_list) {
    if (tag != std::string("tblrcvr.dtor")) return;
    calls_.Add(IsRegistered("\x04peerproc") ? "log, registered" : "log, not registered");
  });

  Receive();

  const std::vector<std::string> calls = calls_.Calls();
  EXPECT_THAT(std::vector<std::string>(calls.end() - 3, calls.end()),
              ElementsAre("send 11", "log, not registered", "close"));
}

TEST_F(TableReceiverTest, StreamIsClosedBeforeTheSocket) {
  member_->group = "";
  peer_.says = kRecordOfPeer;
  SetLogHook([this](LogLevel, const char* tag, const char*, va_list) {
    if (tag == std::string("tblrcvr.dtor")) calls_.Add("log");
  });

  Receive();

  const std::vector<std::string> calls = calls_.Calls();
  EXPECT_THAT(std::vector<std::string>(calls.end() - 3, calls.end()), ElementsAre("log", "send 4", "close"));
}

// The socket.

TEST_F(TableReceiverTest, SocketThatCannotBeMadeEndsTheProcess) {
  calls_.Fail("socket(AF_INET, SOCK_STREAM, 0)", EMFILE);

  EXPECT_EXIT(ReceiveWithDefaultLogger(), KilledBySignal(SIGABRT),
              Says("tblrcvr.sock: TableReceiver: socket error 24: Too many open files\n"));
}

TEST_F(TableReceiverTest, SocketIsClosedOnExec) {
  peer_.says = kRecordOfPeer;
  peer_.answers = kRow;
  int flags = 0;
  table_->before_set = [&](const Row&) { flags = Hooks().fcntl.Real(calls_.Socket(), F_GETFD, 0); };

  Receive();

  EXPECT_EQ(flags, FD_CLOEXEC);
}

TEST_F(TableReceiverTest, SocketDetectsASilentPeerAfterFourSeconds) {
  peer_.says = kRecordOfPeer;
  peer_.answers = kRow;
  std::vector<int> options;
  table_->before_set = [&](const Row&) {
    const std::vector<std::pair<int, int>> asked = {{SOL_SOCKET, SO_KEEPALIVE},
                                                    {IPPROTO_TCP, TCP_KEEPIDLE},
                                                    {IPPROTO_TCP, TCP_KEEPINTVL},
                                                    {IPPROTO_TCP, TCP_KEEPCNT}};
    for (const auto& [level, option] : asked) {
      int value = -1;
      socklen_t size = sizeof value;
      Hooks().getsockopt.Real(calls_.Socket(), level, option, &value, &size);
      options.push_back(value);
    }
  };

  Receive();

  EXPECT_THAT(options, ElementsAre(1, 1, 1, 3));
}

TEST_F(TableReceiverTest, KeepaliveThatCannotBeSwitchedOnIsOnlyLogged) {
  peer_.says = kRecordOfPeer;
  peer_.answers = kRow;
  calls_.Fail("setsockopt(SOL_SOCKET, SO_KEEPALIVE, 1)", ENOPROTOOPT);

  Receive();

  EXPECT_EQ(LinesBetween().front(), "6 tblrcvr.sock.ka: TableReceiver: setsockopt failed setting SO_KEEPALIVE");
  EXPECT_EQ(table_->rows.size(), 1U);
}

TEST_F(TableReceiverTest, IdleTimeThatCannotBeSetIsOnlyLogged) {
  peer_.says = kRecordOfPeer;
  peer_.answers = kRow;
  calls_.Fail("setsockopt(IPPROTO_TCP, TCP_KEEPIDLE, 1)", ENOPROTOOPT);

  Receive();

  EXPECT_EQ(LinesBetween().front(), "6 tblrcvr.sock.kid: TableReceiver: setsockopt failed setting TCP_KEEPIDLE");
  EXPECT_EQ(table_->rows.size(), 1U);
}

TEST_F(TableReceiverTest, ProbeIntervalThatCannotBeSetIsOnlyLogged) {
  peer_.says = kRecordOfPeer;
  peer_.answers = kRow;
  calls_.Fail("setsockopt(IPPROTO_TCP, TCP_KEEPINTVL, 1)", ENOPROTOOPT);

  Receive();

  EXPECT_EQ(LinesBetween().front(), "6 tblrcvr.sock.kiv: TableReceiver: setsockopt failed setting TCP_KEEPINTVL");
  EXPECT_EQ(table_->rows.size(), 1U);
}

TEST_F(TableReceiverTest, ProbeCountThatCannotBeSetIsOnlyLogged) {
  peer_.says = kRecordOfPeer;
  peer_.answers = kRow;
  calls_.Fail("setsockopt(IPPROTO_TCP, TCP_KEEPCNT, 3)", ENOPROTOOPT);

  Receive();

  EXPECT_EQ(LinesBetween().front(), "6 tblrcvr.sock.ki: TableReceiver: setsockopt failed setting TCP_KEEPCNT");
  EXPECT_EQ(table_->rows.size(), 1U);
}

TEST_F(TableReceiverTest, AllFourKeepaliveFailuresAreLoggedInTheirOrder) {
  peer_.says = kRecordOfPeer;
  calls_.Fail("setsockopt(SOL_SOCKET, SO_KEEPALIVE, 1)", ENOPROTOOPT);
  calls_.Fail("setsockopt(IPPROTO_TCP, TCP_KEEPIDLE, 1)", ENOPROTOOPT);
  calls_.Fail("setsockopt(IPPROTO_TCP, TCP_KEEPINTVL, 1)", ENOPROTOOPT);
  calls_.Fail("setsockopt(IPPROTO_TCP, TCP_KEEPCNT, 3)", ENOPROTOOPT);

  Receive();

  const std::vector<std::string> lines = LinesBetween();
  ASSERT_GE(lines.size(), 4U);
  EXPECT_THAT(std::vector<std::string>(lines.begin(), lines.begin() + 4),
              ElementsAre("6 tblrcvr.sock.ka: TableReceiver: setsockopt failed setting SO_KEEPALIVE",
                          "6 tblrcvr.sock.kid: TableReceiver: setsockopt failed setting TCP_KEEPIDLE",
                          "6 tblrcvr.sock.kiv: TableReceiver: setsockopt failed setting TCP_KEEPINTVL",
                          "6 tblrcvr.sock.ki: TableReceiver: setsockopt failed setting TCP_KEEPCNT"));
}

// Connecting.

TEST_F(TableReceiverTest, ConnectThatTimesOutEndsTheStreamSilently) {
  calls_.polls = {[](pollfd*) { return 0; }};

  Receive(3s);

  const std::vector<std::string> wait = {"poll(done POLLIN, socket POLLOUT, 3000)"};
  EXPECT_EQ(calls_.Calls(), Join({kSetUp, kConnect, wait, kBlockAgain, kClose}));
  EXPECT_THAT(LinesBetween(), IsEmpty());
}

// The handshake.

TEST_F(TableReceiverTest, StreamThatCannotBeMadeIsLoggedAndEndsNormally) {
  peer_.says = kRecordOfPeer;
  peer_.answers = kRow;
  calls_.Fail("fopencookie", ENOMEM);

  Receive();

  EXPECT_THAT(LinesBetween(), ElementsAre("7 tblrcvr.sock.conn.succ: TableReceiver: connect succeeded",
                                          "3 tblrcvr.cook.fopen: TableReceiver: fopencoookie failed"));
  EXPECT_EQ(calls_.Calls().back(), "close");
}

TEST_F(TableReceiverTest, PeerThatClosesAtOnceEndsTheStreamNormally) {
  peer_.says = "";

  Receive();

  EXPECT_THAT(LinesBetween(), ElementsAre("7 tblrcvr.sock.conn.succ: TableReceiver: connect succeeded"));
  EXPECT_EQ(peer_.Received(), "");
}

TEST_F(TableReceiverTest, FirstRecordThatIsCutShortEndsTheStreamNormally) {
  peer_.says = kRecordOfPeer.substr(0, kRecordOfPeer.size() - 1);

  Receive();

  EXPECT_THAT(LinesBetween(), ElementsAre("7 tblrcvr.sock.conn.succ: TableReceiver: connect succeeded"));
  EXPECT_EQ(peer_.Received(), "");
}

TEST_F(TableReceiverTest, OtherDatabaseIsTheWrongServer) {
  peer_.says = Bytes(
      "\x00\x20\x00\x09"
      "dc"
      "\x04peerproc");

  EXPECT_THROW(Receive(), WrongServer);

  EXPECT_THAT(LinesBetween(), ElementsAre("7 tblrcvr.sock.conn.succ: TableReceiver: connect succeeded"));
  EXPECT_EQ(calls_.Calls().back(), "close");
}

TEST_F(TableReceiverTest, DatabaseThatOursIsAPrefixOfIsTheWrongServer) {
  peer_.says = Bytes(
      "\x00\x30\x00\x09"
      "db\0"
      "\x04peerproc");

  EXPECT_THROW(Receive(), WrongServer);
}

TEST_F(TableReceiverTest, DatabaseThatIsAPrefixOfOursIsTheWrongServer) {
  peer_.says = Bytes(
      "\x00\x10\x00\x09"
      "d"
      "\x04peerproc");

  EXPECT_THROW(Receive(), WrongServer);
}

TEST_F(TableReceiverTest, WrongServerOfOurOwnUidIsTheWrongServer) {
  peer_.says = Bytes(
      "\x00\x20\x00\x08"
      "dc"
      "\x03"
      "devproc");

  EXPECT_THROW(Receive(), WrongServer);
}

TEST_F(TableReceiverTest, OwnUidIsAConnectionToOurselvesThatIsSeenAfterTheUidIsLogged) {
  peer_.says = kRecordOfUs;

  EXPECT_THROW(Receive(), SelfConnect);

  EXPECT_THAT(LinesBetween(), ElementsAre("7 tblrcvr.sock.conn.succ: TableReceiver: connect succeeded",
                                          "7 tblrcvr.gotuid: TableReceiver(R) got uid: dev::proc"));
  EXPECT_EQ(peer_.Received(), "");
}

TEST_F(TableReceiverTest, UidThatBeginsWithOursOrIsTheBeginningOfOursIsAnother) {
  for (const char* says : {"\x00\x20\x00\x09"
                           "db"
                           "\x03"
                           "devprocs",
                           "\x00\x20\x00\x07"
                           "db"
                           "\x03"
                           "devpro"}) {
    peer_.says = std::string(says, 4 + 2 + static_cast<unsigned char>(says[3]));

    EXPECT_NO_THROW(Receive());
  }

  EXPECT_EQ(log_.Lines("tblsvr.fnd").size(), 2U);
}

TEST_F(TableReceiverTest, OwnUidIsNotRegistered) {
  peer_.says = kRecordOfUs;
  const Registration registration(esns_,
                                  "\x03"
                                  "devproc");

  EXPECT_THROW(Receive(), SelfConnect);
}

TEST_F(TableReceiverTest, UidThatDiffersFromOursOnlyInItsDivisionIsAPeer) {
  peer_.says = Bytes(
      "\x00\x20\x00\x08"
      "db"
      "\x04"
      "devproc");

  Receive();

  EXPECT_THAT(LinesBetween(), Contains("7 tblrcvr.gotuid: TableReceiver(R) got uid: devp::roc"));
  EXPECT_THAT(LinesBetween(), Contains(StartsWith("7 tblsvr.fnd: ")));
}

TEST_F(TableReceiverTest, PeerThatIsBeingReceivedFromAlreadyIsAnsweredNothing) {
  peer_.says = kRecordOfPeer;
  const Registration registration(esns_, "\x04peerproc");

  EXPECT_THROW(Receive(), AlreadyConnected);

  EXPECT_THAT(LinesBetween(), ElementsAre("7 tblrcvr.sock.conn.succ: TableReceiver: connect succeeded",
                                          "7 tblrcvr.gotuid: TableReceiver(R) got uid: peer::proc"));
  EXPECT_EQ(peer_.Received(), "");
}

TEST_F(TableReceiverTest, PlaceAtWhichThePeerWasRefusedMeanwhileIsToBeTriedNext) {
  peer_.says = kRecordOfPeer;
  peer_.answers = kRow;
  table_->before_set = [this](const Row&) {
    std::optional<PeerPlace> nothing;
    EXPECT_FALSE(EsnRegistration(esns_, "\x04peerproc", {INADDR_LOOPBACK, 9}, nothing).Inserted());
  };

  EXPECT_EQ(Receive(), (PeerPlace{INADDR_LOOPBACK, 9}));
}

TEST_F(TableReceiverTest, PlaceOfARefusalIsToBeTriedNextAlsoWhenMemoryRunsOut) {
  peer_.says = kRecordOfPeer;
  peer_.answers = kRow;
  table_->before_set = [this](const Row&) {
    std::optional<PeerPlace> nothing;
    EsnRegistration(esns_, "\x04peerproc", {INADDR_LOOPBACK, 9}, nothing);
    throw std::bad_alloc();
  };

  EXPECT_EQ(Receive(), (PeerPlace{INADDR_LOOPBACK, 9}));
}

TEST_F(TableReceiverTest, PlaceOfARefusalIsToBeTriedNextAlsoWhenTheGroupCannotBeSent) {
  const HookedHere<ssize_t(int, const void*, std::size_t, int)> send{
      Hooks().send, [this](int, const void*, std::size_t, int) -> ssize_t {
        std::optional<PeerPlace> nothing;
        EsnRegistration(esns_, "\x04peerproc", {INADDR_LOOPBACK, 9}, nothing);
        return FailWith{EPIPE}();
      }};
  peer_.says = kRecordOfPeer;

  EXPECT_EQ(Receive(), (PeerPlace{INADDR_LOOPBACK, 9}));
}

TEST_F(TableReceiverTest, StreamWithoutARefusalLeavesNoPlaceToTryNext) {
  peer_.says = kRecordOfPeer;
  peer_.answers = kRow;

  EXPECT_EQ(Receive(), std::nullopt);
}

TEST_F(TableReceiverTest, SecondStreamLeavesTheRegistrationOfTheFirst) {
  peer_.says = kRecordOfPeer;
  const Registration registration(esns_, "\x04peerproc");

  EXPECT_THROW(Receive(), AlreadyConnected);

  EXPECT_TRUE(IsRegistered("\x04peerproc"));
}

TEST_F(TableReceiverTest, OtherPeersMayBeReceivedFromAtTheSameTime) {
  peer_.says = kRecordOfPeer;
  peer_.answers = kRow;
  const Registration registration(esns_, "\x04peerproD");

  Receive();

  EXPECT_EQ(table_->rows.size(), 1U);
}

TEST_F(TableReceiverTest, AnswerThatCannotBeSentEndsTheStreamWithoutReadingRows) {
  peer_.says = kRecordOfPeer;
  calls_.Fail("send 11", EPIPE);
  const HookedHere recv(Hooks().recv, [this](int descriptor, void* buffer, std::size_t size, int flags) {
    calls_.Add("recv");
    return Hooks().recv.Real(descriptor, buffer, size, flags);
  });

  Receive();

  const std::vector<std::string> calls = calls_.Calls();
  EXPECT_THAT(std::vector<std::string>(calls.end() - 5, calls.end()),
              ElementsAre("fopencookie", "recv", kUserTimeout, "send 11", "close"));
  EXPECT_EQ(LinesBetween().back(), "7 tblrcvr.strm.grp: TableReceiver(R) sending group=\"group\" port=65244");
}

TEST_F(TableReceiverTest, EmptyGroupSpoilsTheAnswer) {
  member_->group = "";
  peer_.says = kRecordOfPeer;

  Receive();

  EXPECT_EQ(LinesBetween().back(), "7 tblrcvr.strm.grp: TableReceiver(R) sending group=\"\" port=65244");
  EXPECT_EQ(peer_.Received(), Bytes("\x00\x00\x00\x02"));
}

TEST_F(TableReceiverTest, UidThatClaimsALongerNameThanItHasIsClampedInTheLog) {
  peer_.says = Bytes(
      "\x00\x20\x00\x04"
      "db"
      "\xFF"
      "abc");

  Receive();

  EXPECT_THAT(LinesBetween(), Contains("7 tblrcvr.gotuid: TableReceiver(R) got uid: abc::"));
  EXPECT_THAT(LinesBetween(),
              Contains("7 tblsvr.fnd: TableServer for dev::proc::db(M) found peer: abc:: 3758162435:4660"));
}

TEST_F(TableReceiverTest, EmptyUidIsAPeerWithoutAName) {
  peer_.says = Bytes(
      "\x00\x20\x00\x00"
      "db");

  Receive();

  EXPECT_THAT(LinesBetween(), Contains("7 tblrcvr.gotuid: TableReceiver(R) got uid: ::"));
  EXPECT_THAT(LinesBetween(),
              Contains("7 tblsvr.fnd: TableServer for dev::proc::db(M) found peer: :: 3758162435:4660"));
}

TEST_F(TableReceiverTest, OwnUidThatClaimsALongerNameThanItHasIsClampedInTheLog) {
  member_->uid =
      "\x0A"
      "abc";  // Claims a device name of 10 bytes and has 3.
  peer_.says = kRecordOfPeer;

  Receive();

  EXPECT_THAT(LinesBetween(),
              Contains("7 tblsvr.fnd: TableServer for abc::::db(M) found peer: peer::proc 3758162435:4660"));
}

// Ends.

TEST_F(TableReceiverTest, StopDuringTheHandshakeIsThrown) {
  peer_.says = "";
  peer_.ends = false;
  const HookedHere fopencookie(Hooks().fopencookie,
                               [this](void* cookie, const char* mode, cookie_io_functions_t functions) {
                                 member_.SignalDone();
                                 return Hooks().fopencookie.Real(cookie, mode, functions);
                               });

  EXPECT_THROW(Receive(), AbortRequested);

  EXPECT_THAT(LinesBetween(), ElementsAre("7 tblrcvr.sock.conn.succ: TableReceiver: connect succeeded"));
  EXPECT_EQ(calls_.Calls().back(), "close");
}

TEST_F(TableReceiverTest, StopWhileRowsAreReceivedIsThrownAndUnregistersThePeer) {
  peer_.says = kRecordOfPeer;
  peer_.answers = kRow;
  peer_.ends = false;
  table_->before_set = [this](const Row&) { member_.SignalDone(); };

  EXPECT_THROW(Receive(), AbortRequested);

  EXPECT_EQ(table_->rows.size(), 1U);
  EXPECT_FALSE(IsRegistered("\x04peerproc"));
  EXPECT_EQ(calls_.Calls().back(), "close");
}

TEST_F(TableReceiverTest, RowWhoseMemoryCannotBeHadEndsOnlyTheStream) {
  peer_.says = kRecordOfPeer;
  peer_.answers = kRow;
  table_->before_set = [](const Row&) { throw std::bad_alloc(); };

  EXPECT_NO_THROW(Receive());

  EXPECT_FALSE(IsRegistered("\x04peerproc"));
  EXPECT_EQ(Lines().back(), "7 tblrcvr.dtor: TableReceiver(R) stopping");
  EXPECT_EQ(calls_.Calls().back(), "close");
}

TEST_F(TableReceiverTest, AnyOtherExceptionLeavesTheStreamAndUnregistersThePeer) {
  peer_.says = kRecordOfPeer;
  peer_.answers = kRow;
  table_->before_set = [](const Row&) { throw std::runtime_error("table"); };

  EXPECT_THROW(Receive(), std::runtime_error);

  EXPECT_FALSE(IsRegistered("\x04peerproc"));
  EXPECT_EQ(calls_.Calls().back(), "close");
}

TEST_F(TableReceiverTest, PeerThatResetsTheConnectionEndsTheStreamNormally) {
  peer_.says = kRecordOfPeer;
  peer_.answers = kRow;
  peer_.ends = false;
  table_->before_set = [this](const Row&) { peer_.Reset(); };

  Receive();

  EXPECT_EQ(table_->rows.size(), 1U);
  EXPECT_EQ(LinesBetween().back(), "3 cook.rd.rd: Cookie::Read: read error 104");
}
