// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gmock/gmock.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <deque>
#include <future>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "PeerEnd.h"
#include "Records.h"
#include "TestMember.h"
#include "network/ActiveESNs.h"
#include "network/TableSender.h"
#include "support/Bytes.h"
#include "support/FailWith.h"
#include "support/FailingAllocations.h"
#include "support/HookedHere.h"
#include "support/LogRecorder.h"
#include "support/Own.h"
#include "support/Says.h"

using namespace std::chrono_literals;

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Ge;
using testing::IsEmpty;
using testing::KilledBySignal;
using testing::Lt;
using testing::Not;
using testing::StartsWith;
using Varnix::LogLevel;

// What a peer of our group answers: a record of group and listening port.
const std::string kOurGroup = Bytes(
    "\x00\x50\x00\x02"
    "group"
    "\x12\x34");

// What a peer of another group answers: it is not connected back to.
const std::string kOtherGroup = Bytes(
    "\x00\x50\x00\x02"
    "other"
    "\x12\x34");

// Throws at the lines of one tag.
class HookThatThrowsAt {
 public:
  explicit HookThatThrowsAt(const std::string& tag) {
    SetLogHook([this, tag](LogLevel, const char* line_tag, const char*, va_list) {
      last_tag_ = line_tag;
      if (tag == line_tag) throw std::runtime_error(tag);
    });
  }
  ~HookThatThrowsAt() { SetLogHook(DefaultLogger); }
  HookThatThrowsAt(const HookThatThrowsAt&) = delete;
  HookThatThrowsAt& operator=(const HookThatThrowsAt&) = delete;

  const std::string& LastTag() const { return last_tag_; }

 private:
  std::string last_tag_;
};

// Serves a connection from 127.1.2.3 on the thread of the test. The steady clock runs a second at each look at it, so
// that a sender with nothing to do does not sleep.
class TableSenderTest : public testing::Test {
 protected:
  TableSenderTest() : TableSenderTest(MakePair()) {}
  ~TableSenderTest() override {
    if (!sent_) Hooks().close.Real(socket_);
  }

  void Send() {
    sent_ = true;
    SendTable(*member_, Own(socket_), 0x7F010203, esns_, member_.FoundPeer());
  }
  // A burst of rows that take so many bytes on the wire each, 9 with an empty value, leaves whole between so many looks
  // at the peer.
  void LeaveWhole(const std::vector<std::size_t>& sizes, std::size_t looks);
  // A burst of so many rows leaves whole, in pieces of a full buffer: one piece between two looks at the peer.
  void LeavesByTheBuffer(int rows, const std::string& key, const std::string& value, std::size_t row_size,
                         std::size_t looks);
  void SendWithDefaultLogger() {
    SetLogHook(DefaultLogger);
    Send();
  }
  void SetRow(const std::string& key, const std::string& value) const { member_->send_table->Set({key, value}); }
  // The sender's own, as "7 tag: text", with T for the sender.
  std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    for (const LogLine& line : log_.Lines()) {
      if (line.tag.rfind("tblsndr.", 0) != 0) continue;
      std::string text = line.text;
      if (sender_.empty()) sender_ = text.substr(0, text.find(')') + 1);
      if (text.rfind(sender_, 0) == 0) text.replace(0, sender_.size(), "TableSender(T)");
      lines.push_back(std::to_string(static_cast<int>(line.level)) + " " + line.tag + ": " + text);
    }
    return lines;
  }

  // In the trace, as "option TCP_NODELAY 1".
  void RecordOptions() {
    setsockopt_.emplace(Hooks().setsockopt, [this](int, int level, int option, const void* value, socklen_t) {
      const bool known = level == IPPROTO_TCP && option == TCP_NODELAY;
      trace_.push_back(std::string("option ") + (known ? "TCP_NODELAY " : "? ") +
                       std::to_string(*static_cast<const int*>(value)));
      return 0;
    });
  }
  // Those behind the record of the uid.
  std::vector<std::string> SendsAndOptions() const {
    std::vector<std::string> calls;
    for (const std::string& call : trace_) {
      if (call.rfind("send ", 0) == 0 || call.rfind("option ", 0) == 0) calls.push_back(call);
    }
    return {calls.begin() + 1, calls.end()};
  }
  // How many bytes have been sent between each two looks for the end of the connection.
  std::vector<std::size_t> BytesBetweenLooks() const {
    std::vector<std::size_t> sums;
    std::size_t sent = 0;
    for (const std::string& call : trace_) {
      if (call.rfind("send ", 0) == 0) sent += std::stoul(call.substr(5));
      if (call.rfind("poll ", 0) == 0) sums.push_back(std::exchange(sent, 0));
    }
    return {sums.begin() + 1, sums.end()};  // The record of the uid comes before the first look.
  }

  TestMember member_;
  const int socket_;
  PeerEnd peer_;
  LogRecorder log_;
  std::vector<std::string> trace_;  // "send 14", "recv", "poll socket POLLIN 0", "close".
  // What happens at the looks for the end of the connection, one after another. After the last, the peer ends it.
  std::deque<std::function<int(pollfd&)>> passes_;

 private:
  explicit TableSenderTest(std::pair<int, int> pair) : socket_(pair.first), peer_(pair.second) {}
  static std::pair<int, int> MakePair() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    return {ends[0], ends[1]};
  }

  const std::shared_ptr<ActiveESNs> esns_ = std::make_shared<ActiveESNs>([] {});
  bool sent_ = false;
  mutable std::string sender_;
  std::chrono::steady_clock::time_point time_;
  HookedHere<std::chrono::steady_clock::time_point()> now_{Hooks().now, [this] { return time_ += 1s; }};
  HookedHere<int(pollfd*, nfds_t, int)> poll_{
      Hooks().poll, [this](pollfd* entries, nfds_t count, int time_out) {
        if (count != 1) return Hooks().poll.Real(entries, count, time_out);
        trace_.push_back(std::string("poll ") + (entries[0].fd == socket_ ? "socket" : "?") +
                         (entries[0].events == POLLIN ? " POLLIN " : " ? ") + std::to_string(time_out));
        if (passes_.empty()) {
          peer_.End();
          return Hooks().poll.Real(entries, count, time_out);
        }
        const auto pass = std::move(passes_.front());
        passes_.pop_front();
        entries[0].revents = 0;
        return pass(entries[0]);
      }};
  HookedHere<ssize_t(int, const void*, std::size_t, int)> send_{
      Hooks().send, [this](int descriptor, const void* bytes, std::size_t size, int flags) {
        trace_.push_back("send " + std::to_string(size));
        return Hooks().send.Real(descriptor, bytes, size, flags);
      }};
  HookedHere<ssize_t(int, void*, std::size_t, int)> recv_{
      Hooks().recv, [this](int descriptor, void* buffer, std::size_t size, int flags) {
        trace_.emplace_back("recv");
        return Hooks().recv.Real(descriptor, buffer, size, flags);
      }};
  std::optional<HookedHere<int(int, int, int, const void*, socklen_t)>> setsockopt_;
  HookedHere<int(int)> close_{Hooks().close, [this](int descriptor) {
                                if (descriptor == socket_) trace_.emplace_back("close");
                                return Hooks().close.Real(descriptor);
                              }};
};

int NothingIsThere(pollfd&) { return 0; }

// Nobody hears the log. The clock goes by so much at each row, and then by a second at each look at it.
class QuietBurst {
 public:
  // `taken` is told at each row, before it is sent, how many there have been.
  QuietBurst(
      int rows, std::chrono::nanoseconds step, const std::function<void(int)>& taken = [](int) {})
      : now_(Hooks().now, [this, rows, step, taken] {
          const int row = looks_++;
          if (row > 0 && row <= rows) taken(row);
          return time_ += row < rows ? step : 1s;
        }) {
    SetLogHook({});
  }

 private:
  int looks_ = 0;  // The first is before any row.
  std::chrono::steady_clock::time_point time_;
  HookedHere<std::chrono::steady_clock::time_point()> now_;
};

void TableSenderTest::LeaveWhole(const std::vector<std::size_t>& sizes, std::size_t looks) {
  const QuietBurst burst(static_cast<int>(sizes.size()), 1us);
  std::string expected = kRecordOfUs;
  char letter = 'a';
  for (const std::size_t size : sizes) {
    const std::string key = std::string("\x03tbl") + letter;
    const std::string value(size - 9, letter++);
    SetRow(key, value);
    expected +=
        Bytes("\x00\x50") + static_cast<char>(value.size() >> 8) + static_cast<char>(value.size()) + key + value;
  }
  peer_.Send(kOtherGroup);
  passes_.assign(looks, NothingIsThere);

  Send();

  EXPECT_TRUE(peer_.ReceiveUntilEnd() == expected) << "bytes differ";
}

void TableSenderTest::LeavesByTheBuffer(int rows, const std::string& key, const std::string& value,
                                        std::size_t row_size, std::size_t looks) {
  const QuietBurst burst(rows, 100ns);
  for (int i = 0; i < rows; ++i) SetRow(key + std::to_string(1000 + i), value);
  peer_.Send(kOtherGroup);
  passes_.assign(looks, NothingIsThere);

  Send();

  const std::vector<std::size_t> sent = BytesBetweenLooks();
  EXPECT_THAT(*std::max_element(sent.begin(), sent.end()), AllOf(Ge(8192U), Lt(8192U + row_size)));
  EXPECT_EQ(peer_.ReceiveUntilEnd().size(), kRecordOfUs.size() + static_cast<std::size_t>(rows) * row_size);
}

}  // namespace

// The handshake.

TEST_F(TableSenderTest, StreamIsLoggedInTheseLines) {
  SetRow("\x03tblkey", "value");
  peer_.Send(kOurGroup);
  passes_ = {NothingIsThere};

  Send();

  EXPECT_THAT(Lines(), ElementsAre("7 tblsndr.ctor: TableSender(T) for db:" + std::to_string(socket_) + " starting",
                                   "7 tblsndr.senduid: TableSender(T) sending uid: dev::proc",
                                   "7 tblsndr.getgrp: TableSender(T) received group=\"group\" port=4660",
                                   "7 tblsndr.strm: TableSender(T) sending tbl::key (5 bytes)",
                                   "7 tblsndr.dtor: TableSender(T) stopping"));
}

TEST_F(TableSenderTest, FormatsAreHandedToTheHookUnexpanded) {
  SetRow("\x03tblkey", "value");
  peer_.Send(kOtherGroup);
  passes_ = {NothingIsThere};

  Send();

  EXPECT_THAT(log_.Formats("tblsndr."), ElementsAre("TableSender(%p) for %s:%d starting",             //
                                                    "TableSender(%p) sending uid: %.*s::%s",          //
                                                    "TableSender(%p) received group=\"%s\" port=%u",  //
                                                    "TableSender(%p) sending %.*s::%s (%zu bytes)",   //
                                                    "TableSender(%p) stopping"));
}

TEST_F(TableSenderTest, DatabaseAndUidAreSentAsTheFirstRecord) {
  peer_.End();

  Send();

  EXPECT_EQ(peer_.ReceiveUntilEnd(), Bytes("\x00\x20\x00\x08"
                                           "db"
                                           "\x03"
                                           "devproc"));
}

TEST_F(TableSenderTest, StreamIsMadeOfTheseCallsInThisOrder) {
  SetRow("\x03tblkey", "value");
  peer_.Send(kOurGroup);
  passes_ = {NothingIsThere};

  Send();

  EXPECT_THAT(trace_,
              ElementsAre("send 14", "recv", "poll socket POLLIN 0", "send 16", "poll socket POLLIN 0", "close"));
}

TEST_F(TableSenderTest, SocketGetsNoOptionsBeforeItsFirstRow) {
  peer_.Send(kOurGroup);
  RecordOptions();

  Send();

  EXPECT_THAT(trace_, Not(Contains(StartsWith("option"))));
}

TEST_F(TableSenderTest, RowsOfABurstMayShareSegmentsAndTheLastIsNotHeldBack) {
  for (const char* key : {"\x03tbla", "\x03tblb", "\x03tblc"}) SetRow(key, "value");
  peer_.Send(kOurGroup);
  RecordOptions();
  passes_.assign(3, NothingIsThere);

  Send();

  EXPECT_THAT(SendsAndOptions(), ElementsAre("send 14", "send 14", "send 14", "option TCP_NODELAY 1"));
}

TEST_F(TableSenderTest, RowsBeforeAnEmptyValueThatEndsABurstAreNotHeldBack) {
  SetRow("\x03tbla", "value");
  SetRow("\x03tblb", "");
  peer_.Send(kOurGroup);
  RecordOptions();
  passes_.assign(2, NothingIsThere);

  Send();

  EXPECT_THAT(SendsAndOptions(), ElementsAre("send 14", "option TCP_NODELAY 1", "send 9"));
}

TEST_F(TableSenderTest, SingleRowsAreNotHeldBackAndTakeNoFurtherCall) {
  peer_.Send(kOurGroup);
  RecordOptions();
  for (const char* value : {"one", "two", "three"}) {
    passes_.emplace_back([this, value](pollfd&) {
      SetRow("\x03tblkey", value);
      return 0;
    });
    passes_.emplace_back(NothingIsThere);  // Before the row is sent.
  }

  Send();

  EXPECT_THAT(SendsAndOptions(), ElementsAre("send 14", "option TCP_NODELAY 1", "send 14", "send 16"));
}

TEST_F(TableSenderTest, NextBurstMayShareSegmentsAgain) {
  SetRow("\x03tbla", "value");
  peer_.Send(kOurGroup);
  RecordOptions();
  passes_ = {NothingIsThere, [this](pollfd&) {
               for (const char* key : {"\x03tblb", "\x03tblc", "\x03tbld"}) SetRow(key, "value");
               return 0;
             }};
  passes_.resize(5, NothingIsThere);

  Send();

  EXPECT_THAT(SendsAndOptions(), ElementsAre("send 14", "option TCP_NODELAY 1", "option TCP_NODELAY 0", "send 14",
                                             "send 14", "send 14", "option TCP_NODELAY 1"));
}

TEST_F(TableSenderTest, RowsOfAFullBufferMayShareSegmentsAndTheLastIsNotHeldBack) {
  const std::string value(92, 'v');
  const QuietBurst burst(301, 100ns, [&](int taken) {
    if (taken != 1) return;
    for (int i = 0; i < 300; ++i) SetRow("\x03tbl" + std::to_string(1000 + i), value);  // 104 bytes each.
  });
  SetRow("\x03tbla", "value");
  peer_.Send(kOtherGroup);
  RecordOptions();
  passes_.assign(5, NothingIsThere);

  Send();

  EXPECT_THAT(SendsAndOptions(),
              ElementsAre("send 14", "option TCP_NODELAY 1", "option TCP_NODELAY 0", "send 8192", "send 24",
                          "send 8192", "send 24", "send 8192", "send 24", "send 6552", "option TCP_NODELAY 1"));
}

TEST_F(TableSenderTest, SocketThatRefusesTheOptionIsServedAllTheSame) {
  SetRow("\x03tblkey", "value");
  peer_.Send(kOurGroup);
  const HookedHere setsockopt(Hooks().setsockopt, FailWith{ENOPROTOOPT});
  passes_ = {NothingIsThere};

  Send();

  EXPECT_EQ(peer_.ReceiveUntilEnd(), kRecordOfUs + std::string("\x00\x70\x00\x05\x03tblkeyvalue", 16));
  EXPECT_THAT(Lines(), Not(Contains(StartsWith("3"))));
}

TEST_F(TableSenderTest, StreamThatCannotBeMadeEndsTheProcess) {
  const auto send = [this] {
    const HookedHere fopencookie(Hooks().fopencookie, [](void*, const char*, cookie_io_functions_t) -> FILE* {
      errno = ENOMEM;
      return nullptr;
    });
    SendWithDefaultLogger();
  };

  EXPECT_EXIT(send(), KilledBySignal(SIGABRT),
              Says("tblsndr.cook.fopen: TableSender: fopencookie failed: Cannot allocate memory\n"));
}

TEST_F(TableSenderTest, StreamThatCannotBeMadeEndsTheProcessThoughTheLogHookThrows) {
  const auto send = [this] {
    const HookedHere fopencookie(Hooks().fopencookie,
                                 [](void*, const char*, cookie_io_functions_t) -> FILE* { return nullptr; });
    const HookThatThrowsAt hook("tblsndr.cook.fopen");
    Send();
  };

  EXPECT_EXIT(send(), KilledBySignal(SIGABRT), Says(""));
}

TEST_F(TableSenderTest, PeerThatIsGoneAlreadyEndsTheStreamSilently) {
  peer_.Close();

  Send();

  EXPECT_THAT(Lines(), ElementsAre("7 tblsndr.ctor: TableSender(T) for db:" + std::to_string(socket_) + " starting",
                                   "7 tblsndr.senduid: TableSender(T) sending uid: dev::proc",
                                   "7 tblsndr.dtor: TableSender(T) stopping"));
  EXPECT_THAT(trace_, Not(Contains("recv")));
  EXPECT_EQ(trace_.back(), "close");
}

TEST_F(TableSenderTest, PeerThatClosesInsteadOfAnsweringEndsTheStreamSilently) {
  peer_.End();

  Send();

  EXPECT_THAT(Lines(), ElementsAre("7 tblsndr.ctor: TableSender(T) for db:" + std::to_string(socket_) + " starting",
                                   "7 tblsndr.senduid: TableSender(T) sending uid: dev::proc",
                                   "7 tblsndr.dtor: TableSender(T) stopping"));
  EXPECT_THAT(trace_, ElementsAre("send 14", "recv", "close"));
}

TEST_F(TableSenderTest, AnswerThatIsCutShortEndsTheStreamSilently) {
  SetRow("\x03tblkey", "value");
  peer_.Send(kOurGroup.substr(0, kOurGroup.size() - 1));
  peer_.End();

  Send();

  EXPECT_EQ(peer_.ReceiveUntilEnd(), kRecordOfUs);
  EXPECT_THAT(member_.FoundPeers(), IsEmpty());
}

TEST_F(TableSenderTest, AnswerWithThreeBytesOfPortEndsTheStreamWithoutRows) {
  SetRow("\x03tblkey", "value");
  peer_.Send(
      Bytes("\x00\x50\x00\x03"
            "group"
            "\x12\x34\x56"));

  Send();

  EXPECT_EQ(peer_.ReceiveUntilEnd(), kRecordOfUs);
  EXPECT_EQ(log_.Lines("tblsndr.getgrp").size(), 0U);
  EXPECT_THAT(member_.FoundPeers(), IsEmpty());
  EXPECT_THAT(trace_, ElementsAre("send 14", "recv", "close"));
}

TEST_F(TableSenderTest, AnswerWithOneByteOfPortEndsTheStreamWithoutRows) {
  SetRow("\x03tblkey", "value");
  peer_.Send(
      Bytes("\x00\x50\x00\x01"
            "group"
            "\x12"));

  Send();

  EXPECT_EQ(peer_.ReceiveUntilEnd(), kRecordOfUs);
  EXPECT_EQ(log_.Lines("tblsndr.getgrp").size(), 0U);
  EXPECT_THAT(member_.FoundPeers(), IsEmpty());
  EXPECT_THAT(trace_, ElementsAre("send 14", "recv", "close"));
}

TEST_F(TableSenderTest, AnswerWithoutAPortEndsTheStreamWithoutRows) {
  SetRow("\x03tblkey", "value");
  peer_.Send(
      Bytes("\x00\x50\x00\x00"
            "group"));

  Send();

  EXPECT_EQ(peer_.ReceiveUntilEnd(), kRecordOfUs);
  EXPECT_EQ(log_.Lines("tblsndr.getgrp").size(), 0U);
  EXPECT_THAT(member_.FoundPeers(), IsEmpty());
  EXPECT_THAT(trace_, ElementsAre("send 14", "recv", "close"));
}

TEST_F(TableSenderTest, UidThatClaimsALongerNameThanItHasIsClampedInTheLog) {
  member_->uid =
      "\x0A"
      "abc";  // Claims a device name of 10 bytes and has 3.
  peer_.End();

  Send();

  EXPECT_EQ(Lines()[1], "7 tblsndr.senduid: TableSender(T) sending uid: abc::");
  EXPECT_EQ(peer_.ReceiveUntilEnd(), Bytes("\x00\x20\x00\x04"
                                           "db"
                                           "\x0A"
                                           "abc"));
}

TEST_F(TableSenderTest, StreamIsClosedBeforeTheSocketAndSendsWhatIsBuffered) {
  member_->database = "";
  Send();

  EXPECT_THAT(trace_, ElementsAre("send 4", "close"));
  EXPECT_EQ(peer_.ReceiveUntilEnd(), Bytes("\x00\x00\x00\x08"));
  EXPECT_EQ(Lines().back(), "7 tblsndr.dtor: TableSender(T) stopping");
}

// Connecting back.

TEST_F(TableSenderTest, PeerOfTheSameGroupIsConnectedBackToAtThePortThatItNames) {
  peer_.Send(kOurGroup);

  Send();

  EXPECT_THAT(member_.FoundPeers(), ElementsAre("2130772483:4660"));
}

TEST_F(TableSenderTest, PortIsReadAsUnsignedBytes) {
  peer_.Send(
      Bytes("\x00\x50\x00\x02"
            "group"
            "\xFF\x80"));

  Send();

  EXPECT_EQ(Lines()[2], "7 tblsndr.getgrp: TableSender(T) received group=\"group\" port=65408");
  EXPECT_THAT(member_.FoundPeers(), ElementsAre("2130772483:65408"));
}

TEST_F(TableSenderTest, PeerWithoutAGroupIsConnectedBackToIfWeHaveNoneEither) {
  member_->group = "";
  peer_.Send(Bytes("\x00\x00\x00\x02\x12\x34"));

  Send();

  EXPECT_EQ(Lines()[2], "7 tblsndr.getgrp: TableSender(T) received group=\"\" port=4660");
  EXPECT_THAT(member_.FoundPeers(), ElementsAre("2130772483:4660"));
}

TEST_F(TableSenderTest, PeerOfAnotherGroupIsServedButNotConnectedBackTo) {
  SetRow("\x03tblkey", "value");
  peer_.Send(
      Bytes("\x00\x50\x00\x02"
            "grouq"
            "\x12\x34"));
  passes_ = {NothingIsThere};

  Send();

  EXPECT_EQ(Lines()[2], "7 tblsndr.getgrp: TableSender(T) received group=\"grouq\" port=4660");
  EXPECT_EQ(peer_.ReceiveUntilEnd(), kRecordOfUs + Bytes("\x00\x70\x00\x05"
                                                         "\x03tblkey"
                                                         "value"));
  EXPECT_THAT(member_.FoundPeers(), IsEmpty());
}

TEST_F(TableSenderTest, PeerWhoseGroupIsAPrefixIsNotConnectedBackTo) {
  peer_.Send(
      Bytes("\x00\x40\x00\x02"
            "grou"
            "\x12\x34"));

  Send();

  EXPECT_THAT(member_.FoundPeers(), IsEmpty());
}

TEST_F(TableSenderTest, PeerWhoseGroupIsAnExtensionIsNotConnectedBackTo) {
  peer_.Send(
      Bytes("\x00\x60\x00\x02"
            "group\0"
            "\x12\x34"));

  Send();

  EXPECT_THAT(member_.FoundPeers(), IsEmpty());
}

// Streaming.

TEST_F(TableSenderTest, DoneTableIsWatchedBeforeTheRows) {
  peer_.Send(kOurGroup);

  Send();

  const std::vector<LogLine> watched = log_.Lines("tbl.watch.all");
  ASSERT_EQ(watched.size(), 2U);
  EXPECT_EQ(watched[0].text, "Table(" + AddressOf(member_->done_table.get()) + ") watching all (1 watchers total)");
  EXPECT_EQ(watched[1].text, "Table(" + AddressOf(member_->send_table.get()) + ") watching all (1 watchers total)");
}

TEST_F(TableSenderTest, RowsOfTheTableAreSentOldestChangeFirst) {
  SetRow("\x01tk1", "a");
  SetRow("\x01tk2", "bb");
  SetRow("\x01tk1", "ccc");
  peer_.Send(kOurGroup);
  passes_ = {NothingIsThere, NothingIsThere};

  Send();

  EXPECT_EQ(peer_.ReceiveUntilEnd(), kRecordOfUs + Bytes("\x00\x40\x00\x02"
                                                         "\x01tk2"
                                                         "bb"
                                                         "\x00\x40\x00\x03"
                                                         "\x01tk1"
                                                         "ccc"));
}

TEST_F(TableSenderTest, RowsThatAreSetLaterAreSentToo) {
  SetRow("\x01tk1", "a");
  peer_.Send(kOurGroup);
  const auto sets_rows = [this](pollfd&) {
    SetRow("\x01tk2", "bb");
    SetRow("\x01tk1", "ccc");
    return 0;
  };
  passes_ = {NothingIsThere, sets_rows, NothingIsThere, NothingIsThere};

  Send();

  EXPECT_EQ(peer_.ReceiveUntilEnd(), kRecordOfUs + Bytes("\x00\x40\x00\x01"
                                                         "\x01tk1"
                                                         "a"
                                                         "\x00\x40\x00\x02"
                                                         "\x01tk2"
                                                         "bb"
                                                         "\x00\x40\x00\x03"
                                                         "\x01tk1"
                                                         "ccc"));
}

TEST_F(TableSenderTest, IdleStreamSendsNothing) {
  peer_.Send(kOurGroup);
  const auto sets_a_row = [this](pollfd&) {
    SetRow("\x01tk1", "a");
    return 0;
  };
  passes_.assign(20, NothingIsThere);
  passes_.emplace_back(sets_a_row);
  passes_.emplace_back(NothingIsThere);

  Send();

  EXPECT_EQ(peer_.ReceiveUntilEnd(), kRecordOfUs + Bytes("\x00\x40\x00\x01"
                                                         "\x01tk1"
                                                         "a"));
}

TEST_F(TableSenderTest, IdleStreamLooksForTheEndOfTheConnectionWhenASecondHasPassed) {
  peer_.Send(kOurGroup);
  int looks = 0;
  int looks_until_poll = 0;
  const HookedHere now(Hooks().now, [&] {
    ++looks;
    const std::chrono::nanoseconds passed = looks == 1    ? 0ns
                                            : looks < 100 ? 1s - 1ns  // Too early, as often as it likes to look.
                                            : looks < 200 ? 1s
                                                          : 1h;  // For one that would wait longer.
    return std::chrono::steady_clock::time_point(passed);
  });
  passes_ = {[&](pollfd&) {
    looks_until_poll = looks;
    peer_.End();
    return 1;
  }};

  Send();

  EXPECT_GE(looks_until_poll, 100);
  EXPECT_LT(looks_until_poll, 200);
}

TEST_F(TableSenderTest, IdleStreamLooksForTheEndOfTheConnectionOnceASecond) {
  peer_.Send(kOurGroup);
  std::chrono::nanoseconds time{0};
  const HookedHere now(Hooks().now, [&] { return std::chrono::steady_clock::time_point(time += 1ms); });
  std::vector<std::chrono::nanoseconds> looks;
  const auto look = [&](pollfd&) {
    looks.push_back(time);
    return 0;
  };
  passes_ = {look, look, look, look};

  Send();

  ASSERT_EQ(looks.size(), 4U);
  for (std::size_t i = 1; i < looks.size(); ++i) {
    EXPECT_GE(looks[i] - looks[i - 1], 1s);
    EXPECT_LT(looks[i] - looks[i - 1], 2s);
  }
}

TEST_F(TableSenderTest, ClosedConnectionOfAnIdleStreamEndsIt) {
  peer_.Send(kOurGroup);
  passes_ = {NothingIsThere, NothingIsThere};

  Send();

  EXPECT_THAT(trace_, ElementsAre("send 14", "recv", "poll socket POLLIN 0", "poll socket POLLIN 0",
                                  "poll socket POLLIN 0", "close"));
  EXPECT_EQ(Lines().back(), "7 tblsndr.dtor: TableSender(T) stopping");
}

TEST_F(TableSenderTest, ConnectionThatHasFailedEndsTheStream) {
  peer_.Send(kOurGroup);
  passes_ = {[](pollfd& entry) {
    entry.revents = POLLERR | POLLHUP;
    return 1;
  }};

  Send();

  EXPECT_THAT(trace_, ElementsAre("send 14", "recv", "poll socket POLLIN 0", "close"));
}

TEST_F(TableSenderTest, RowThatWasTakenWhenThePeerHadGoneIsDropped) {
  SetRow("\x01tk1", "a");
  peer_.Send(kOurGroup);
  passes_ = {};

  Send();

  EXPECT_EQ(peer_.ReceiveUntilEnd(), kRecordOfUs);
  EXPECT_EQ(log_.Lines("tblsndr.strm").size(), 0U);
}

TEST_F(TableSenderTest, LookThatFailsDoesNotEndTheStream) {
  SetRow("\x01tk1", "a");
  peer_.Send(kOurGroup);
  passes_ = {[](pollfd&) { return FailWith{EINTR}(); }};

  Send();

  EXPECT_EQ(peer_.ReceiveUntilEnd(), kRecordOfUs + Bytes("\x00\x40\x00\x01"
                                                         "\x01tk1"
                                                         "a"));
}

TEST_F(TableSenderTest, RowThatCannotBeSentIsFollowedByTheNextLook) {
  SetRow("\x01tk1", "a");
  peer_.Send(kOurGroup);
  int sends = 0;
  const HookedHere send(Hooks().send, [&](int descriptor, const void* bytes, std::size_t size, int flags) -> ssize_t {
    if (sends++ == 0) return Hooks().send.Real(descriptor, bytes, size, flags);
    errno = EPIPE;
    return -1;
  });
  passes_ = {NothingIsThere, NothingIsThere};

  Send();

  EXPECT_THAT(trace_,
              ElementsAre("recv", "poll socket POLLIN 0", "poll socket POLLIN 0", "poll socket POLLIN 0", "close"));
  EXPECT_EQ(log_.Lines("tblsndr.strm").size(), 1U);
}

// Bursts, while no hook of the program has to be called for each row.

TEST_F(TableSenderTest, RowsThatAreReadyLeaveTogetherAfterOneLookAtThePeer) {
  const QuietBurst burst(3, 100us);
  for (const char* key : {"\x03tbla", "\x03tblb", "\x03tblc"}) SetRow(key, "value");
  peer_.Send(kOtherGroup);
  passes_ = {NothingIsThere};

  Send();

  EXPECT_THAT(trace_,
              ElementsAre("send 14", "recv", "poll socket POLLIN 0", "send 42", "poll socket POLLIN 0", "close"));
  EXPECT_EQ(peer_.ReceiveUntilEnd(), kRecordOfUs + Bytes("\x00\x50\x00\x05\x03tblavalue"
                                                         "\x00\x50\x00\x05\x03tblbvalue"
                                                         "\x00\x50\x00\x05\x03tblcvalue"));
}

TEST_F(TableSenderTest, RowStaysInTheBufferForHalfAMillisecond) {
  const QuietBurst burst(5, 300us);
  for (const char* key : {"\x03tbla", "\x03tblb", "\x03tblc", "\x03tbld", "\x03tble"}) SetRow(key, "value");
  peer_.Send(kOtherGroup);
  passes_ = {NothingIsThere, NothingIsThere};

  Send();

  EXPECT_THAT(trace_, ElementsAre("send 14", "recv", "poll socket POLLIN 0", "send 42", "poll socket POLLIN 0",
                                  "send 28", "poll socket POLLIN 0", "close"));
}

TEST_F(TableSenderTest, RowsOfALongBurstLeaveWhenTheBufferIsFull) {
  LeavesByTheBuffer(300, "\x03tbl", std::string(92, 'v'), 104, 4);
}

TEST_F(TableSenderTest, HeadersOfShortRowsFillTheBufferToo) { LeavesByTheBuffer(2000, "\x01t", "v", 11, 3); }

TEST_F(TableSenderTest, RowsAsLongAsABufferAndLongerLeaveInTheirPlaceInABurst) {
  LeaveWhole({20, 8192, 20, 17000, 8192, 20, 20}, 4);

  EXPECT_THAT(BytesBetweenLooks(), ElementsAre(8212, 17020, 8192, 40));
}

TEST_F(TableSenderTest, BufferIsFullWithItsLastByteInABurst) {
  LeaveWhole({8000, 192, 8000, 191, 20, 8000, 190, 20, 20}, 4);

  EXPECT_THAT(BytesBetweenLooks(), ElementsAre(8192, 8211, 8210, 20));
}

TEST_F(TableSenderTest, RowsWithEmptyValuesBehindAFullBufferLeaveInTheirPlaceInABurst) {
  LeaveWhole({8000, 191, 9, 20, 8192, 9, 9, 20, 9}, 5);

  EXPECT_THAT(BytesBetweenLooks(), ElementsAre(8191, 8221, 0, 0, 38));
  EXPECT_THAT(std::vector<std::string>(trace_.end() - 2, trace_.end()), ElementsAre("send 9", "close"));
}

TEST_F(TableSenderTest, RowsInTheBufferLeaveBeforeAHookIsCalledThatHasBeenSetMeanwhile) {
  std::vector<std::string> received;
  const QuietBurst burst(4, 1us, [&](int taken) {
    if (taken != 3) return;
    SetLogHook([&](LogLevel, const char* tag, const char*, va_list) {
      if (tag == std::string("tblsndr.strm")) received.push_back(peer_.ReceiveWaiting());
    });
  });
  for (const char* key : {"\x03tbla", "\x03tblb", "\x03tblc", "\x03tbld"}) SetRow(key, "value");
  peer_.Send(kOtherGroup);
  passes_.assign(2, NothingIsThere);

  Send();
  SetLogHook({});

  EXPECT_THAT(received, ElementsAre(kRecordOfUs + Bytes("\x00\x50\x00\x05\x03tblavalue"
                                                        "\x00\x50\x00\x05\x03tblbvalue"),
                                    Bytes("\x00\x50\x00\x05\x03tblcvalue")));
}

TEST_F(TableSenderTest, PeerThatGoesInTheMiddleOfABurstIsNoticedWithinABuffer) {
  std::size_t calls_before = 0;
  const QuietBurst burst(10000, 10ns, [&](int taken) {
    if (taken != 1000) return;
    calls_before = trace_.size();
    peer_.Close();
  });
  for (int i = 0; i < 10000; ++i) SetRow("\x03tbl" + std::to_string(100000 + i), "v");  // 15 bytes each.
  peer_.Send(kOtherGroup);
  passes_.assign(10, [](pollfd& entry) { return Hooks().poll.Real(&entry, 1, 0); });

  Send();

  trace_.erase(trace_.begin(), trace_.begin() + static_cast<std::ptrdiff_t>(calls_before));
  EXPECT_EQ(std::count(trace_.begin(), trace_.end(), "poll socket POLLIN 0"), 1);
  EXPECT_EQ(std::count(trace_.begin(), trace_.end(), "send 8192"), 1);
}

TEST_F(TableSenderTest, StopInTheMiddleOfABurstEndsItWithinABuffer) {
  std::size_t calls_before = 0;
  const QuietBurst burst(10000, 10ns, [&](int taken) {
    if (taken == 1000) {
      calls_before = trace_.size();
      member_->done_table->Set({"done", "y"});
    }
    SetRow("\x03tblkey", std::to_string(taken));  // The set gives the newest of its two.
  });
  for (int i = 0; i < 10000; ++i) SetRow("\x03tbl" + std::to_string(100000 + i), "v");
  peer_.Send(kOtherGroup);
  passes_.assign(10, NothingIsThere);

  Send();

  trace_.erase(trace_.begin(), trace_.begin() + static_cast<std::ptrdiff_t>(calls_before));
  EXPECT_LE(std::count(trace_.begin(), trace_.end(), "poll socket POLLIN 0"), 1);
  EXPECT_LE(std::count(trace_.begin(), trace_.end(), "send 8192"), 1);
}

TEST_F(TableSenderTest, KeyThatIsEmptyOnTheWireHoldsNoRowBeforeItBack) {
  const QuietBurst burst(2, 100us);
  SetRow("\x03tbla", "value");
  SetRow(std::string(4096, 'k'), "value");
  peer_.Send(kOtherGroup);
  passes_ = {NothingIsThere, NothingIsThere, [this](pollfd&) {
               EXPECT_EQ(peer_.ReceiveWaiting().size(), kRecordOfUs.size() + 14) << "all but the last row";
               return 0;
             }};

  Send();
}

TEST_F(TableSenderTest, RowWithAnEmptyValueLeavesABurstWithTheNextRowOnly) {
  const QuietBurst burst(4, 100us);
  SetRow("\x03tbla", "value");
  SetRow("\x03tblb", "");
  SetRow("\x03tblc", "value");
  SetRow("\x03tbld", "");
  peer_.Send(kOtherGroup);
  passes_ = {NothingIsThere, NothingIsThere, [this](pollfd&) {
               EXPECT_EQ(peer_.ReceiveWaiting().size(), kRecordOfUs.size() + 14 + 9 + 14) << "all but the last row";
               return 0;
             }};

  Send();

  EXPECT_THAT(trace_, testing::IsSupersetOf({"send 14", "send 23"}));
}

TEST_F(TableSenderTest, ForkInABurstSendsNothingTwice) {
  const QuietBurst burst(1000, 100ns, [](int taken) {
    if (taken != 500) return;
    const pid_t child = fork();
    if (child == 0) {
      fflush(nullptr);
      _exit(0);
    }
    waitpid(child, nullptr, 0);
  });
  std::string expected = kRecordOfUs;
  for (int i = 0; i < 1000; ++i) {
    const std::string number = std::to_string(1000 + i);
    SetRow("\x03tbl" + number, "v");
    expected += Bytes("\x00\x80\x00\x01\x03tbl") + number + "v";
  }
  peer_.Send(kOtherGroup);
  passes_.assign(2, NothingIsThere);

  Send();

  EXPECT_TRUE(peer_.ReceiveUntilEnd() == expected) << "bytes differ";
}

TEST_F(TableSenderTest, RowsBeforeOneThatThereIsNoMemoryForLeaveWhenTheStreamEnds) {
  std::optional<FailingAllocation> failing;
  const QuietBurst burst(5, 1us, [&](int taken) {
    if (taken == 3) failing.emplace(1);
  });
  std::string expected = kRecordOfUs;
  for (const char* key : {"\x03tbla", "\x03tblb", "\x03tblc", "\x03tbld", "\x03tble"}) {
    const std::string value(100, 'v');
    SetRow(key, value);
    if (key[4] <= 'c') expected += Bytes("\x00\x50\x00\x64") + key + value;
  }
  peer_.Send(kOtherGroup);
  passes_ = {NothingIsThere};

  Send();

  EXPECT_TRUE(failing && failing->HasFailed());
  EXPECT_EQ(peer_.ReceiveUntilEnd(), expected);
}

TEST_F(TableSenderTest, RowWithAnEmptyValueLeavesWithTheNextRow) {
  SetRow("\x01tk1", "");
  peer_.Send(kOurGroup);
  std::string before_the_next_row;
  const auto sets_a_row = [&](pollfd&) {
    before_the_next_row = peer_.ReceiveWaiting();
    SetRow("\x01tk2", "b");
    return 0;
  };
  passes_ = {NothingIsThere, sets_a_row, NothingIsThere};

  Send();

  EXPECT_EQ(before_the_next_row, kRecordOfUs);
  EXPECT_EQ(peer_.ReceiveUntilEnd(), Bytes("\x00\x40\x00\x00"
                                           "\x01tk1"
                                           "\x00\x40\x00\x01"
                                           "\x01tk2"
                                           "b"));
}

TEST_F(TableSenderTest, RowWithZeroBytesIsSentAsItIs) {
  SetRow(Bytes("\x01t\0k"), Bytes("\0v\0"));
  peer_.Send(kOurGroup);
  passes_ = {NothingIsThere};

  Send();

  EXPECT_EQ(peer_.ReceiveUntilEnd(), kRecordOfUs + Bytes("\x00\x40\x00\x03"
                                                         "\x01t\0k"
                                                         "\0v\0"));
}

TEST_F(TableSenderTest, KeyThatClaimsALongerTableNameThanItHasIsClampedInTheLog) {
  SetRow(
      "\x0A"
      "abc",
      "v");
  peer_.Send(kOurGroup);
  passes_ = {NothingIsThere};

  Send();

  EXPECT_EQ(Lines()[3], "7 tblsndr.strm: TableSender(T) sending abc:: (1 bytes)");
}

TEST_F(TableSenderTest, EmptyKeyIsLoggedWithoutATableName) {
  SetRow("", "v");
  peer_.Send(kOurGroup);
  passes_ = {NothingIsThere};

  Send();

  EXPECT_EQ(Lines()[3], "7 tblsndr.strm: TableSender(T) sending :: (1 bytes)");
}

// The stop of the server, and exceptions.

TEST_F(TableSenderTest, DoneRowEndsTheStream) {
  peer_.Send(kOurGroup);
  const auto server_stops = [this](pollfd&) {
    member_->done_table->Set({"done", "y"});
    return 0;
  };
  passes_ = {server_stops, NothingIsThere, NothingIsThere};

  Send();

  EXPECT_THAT(trace_, ElementsAre("send 14", "recv", "poll socket POLLIN 0", "close"));
  EXPECT_EQ(Lines().back(), "7 tblsndr.dtor: TableSender(T) stopping");
  EXPECT_EQ(peer_.ReceiveUntilEnd(), kRecordOfUs);
}

TEST_F(TableSenderTest, StopThatCameBeforeTheFirstRecordEndsTheStream) {
  member_.SignalDone();

  Send();

  EXPECT_EQ(peer_.ReceiveUntilEnd(), "");
  EXPECT_THAT(trace_, ElementsAre("close"));
  EXPECT_EQ(Lines().back(), "7 tblsndr.dtor: TableSender(T) stopping");
}

TEST_F(TableSenderTest, StopWhileThePeerIsWaitedForEndsTheStream) {
  const HookedHere send(Hooks().send, [this](int descriptor, const void* bytes, std::size_t size, int flags) {
    member_.SignalDone();
    return Hooks().send.Real(descriptor, bytes, size, flags);
  });

  Send();

  EXPECT_EQ(peer_.ReceiveUntilEnd(), kRecordOfUs);
  EXPECT_THAT(trace_, ElementsAre("close"));
  EXPECT_EQ(Lines().back(), "7 tblsndr.dtor: TableSender(T) stopping");
}

TEST_F(TableSenderTest, StopWhileARowIsWrittenEndsTheStreamAtTheNextLook) {
  SetRow("\x01tk1", "a");
  peer_.Send(kOurGroup);
  const auto server_stops = [this](pollfd&) {
    member_.SignalDone();
    return 0;
  };
  passes_ = {server_stops, NothingIsThere, NothingIsThere};

  Send();

  EXPECT_THAT(trace_, ElementsAre("send 14", "recv", "poll socket POLLIN 0", "poll socket POLLIN 0", "close"));
  EXPECT_EQ(peer_.ReceiveUntilEnd(), kRecordOfUs);
}

TEST_F(TableSenderTest, StopEndsTheStreamAlthoughARowIsSetAtEveryLook) {
  SetRow("\x01tk1", "0");
  peer_.Send(kOurGroup);
  const auto server_stops = [this](pollfd&) {
    member_.SignalDone();
    member_->done_table->Set({"done", "y"});
    SetRow("\x01tk1", "1");
    return 0;
  };
  const auto row_is_set = [this, count = std::make_shared<int>(1)](pollfd&) {
    SetRow("\x01tk1", std::to_string(++*count));
    return 0;
  };
  passes_ = {server_stops, row_is_set, row_is_set, row_is_set, row_is_set};  // The set gives the newest of its two.

  Send();

  EXPECT_THAT(trace_, ElementsAre("send 14", "recv", "poll socket POLLIN 0", "close"));
}

TEST_F(TableSenderTest, StopWhileARowIsWrittenThatFillsTheBufferEndsTheStreamAtOnce) {
  SetRow("\x01tk1", std::string(100000, 'a'));
  peer_.Send(kOurGroup);
  const auto server_stops = [this](pollfd&) {
    member_.SignalDone();
    return 0;
  };
  passes_ = {server_stops, NothingIsThere};

  Send();

  EXPECT_THAT(trace_, ElementsAre("send 14", "recv", "poll socket POLLIN 0", "close"));
  EXPECT_EQ(peer_.ReceiveUntilEnd(), kRecordOfUs);
}

TEST_F(TableSenderTest, SenderThatFindsNoMemoryToStartWithClosesItsSocketAndNothingElse) {
  member_->uid = CombinedKey("device", std::string(100, 'p'));  // It does not fit into the string itself.
  {
    const FailingAllocation failing(1);
    Send();
    EXPECT_TRUE(failing.HasFailed());
  }

  EXPECT_EQ(peer_.ReceiveUntilEnd(), "");
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(TableSenderTest, ExceptionOfTheLogHookBeforeTheFirstRecordEndsTheStreamAlone) {
  const HookThatThrowsAt hook("tblsndr.senduid");

  EXPECT_NO_THROW(Send());

  EXPECT_EQ(hook.LastTag(), "tblsndr.dtor");
  EXPECT_EQ(peer_.ReceiveUntilEnd(), "");
}

TEST_F(TableSenderTest, ExceptionOfTheLogHookAfterTheAnswerEndsTheStreamAlone) {
  SetRow("\x01tk1", "a");
  peer_.Send(kOurGroup);
  const HookThatThrowsAt hook("tblsndr.getgrp");

  EXPECT_NO_THROW(Send());

  EXPECT_EQ(hook.LastTag(), "tblsndr.dtor");
  EXPECT_EQ(peer_.ReceiveUntilEnd(), kRecordOfUs);
}

TEST_F(TableSenderTest, ExceptionOfTheLogHookWhileTheTablesAreWatchedEndsTheStreamAlone) {
  SetRow("\x01tk1", "a");
  peer_.Send(kOtherGroup);
  const HookThatThrowsAt hook("tbl.watch.all");

  EXPECT_NO_THROW(Send());

  EXPECT_EQ(hook.LastTag(), "tblsndr.dtor");
  EXPECT_EQ(peer_.ReceiveUntilEnd(), kRecordOfUs);
}

TEST_F(TableSenderTest, ExceptionOfTheLogHookBeforeARowEndsTheStreamAlone) {
  SetRow("\x01tk1", "a");
  peer_.Send(kOtherGroup);
  passes_ = {NothingIsThere};
  const HookThatThrowsAt hook("tblsndr.strm");

  EXPECT_NO_THROW(Send());

  EXPECT_EQ(hook.LastTag(), "tblsndr.dtor");
  EXPECT_EQ(peer_.ReceiveUntilEnd(), kRecordOfUs);
}
