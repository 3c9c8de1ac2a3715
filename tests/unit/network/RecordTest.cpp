// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gmock/gmock.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "ConnectionTest.h"
#include "network/Record.h"
#include "network/StopExceptions.h"
#include "support/Bytes.h"
#include "support/FailWith.h"
#include "support/FailingAllocations.h"

namespace {

using testing::IsEmpty;
using Varnix::Row;

class RecordTest : public ConnectionTest {
 protected:
  RecordTest() { OpenStream(); }

  bool Write(const Row& record) { return WriteRecord(record, *stream_); }
  bool Read(Row& record) { return reader_.Read(record); }
  // What the peer receives of `size` bytes while one record is written that may not fit in the connection.
  std::string PeerReceivesWhileWriting(const Row& record, std::size_t size) {
    std::string bytes;
    std::thread peer([&] { bytes = peer_->Receive(size); });
    EXPECT_TRUE(Write(record));
    peer.join();
    return bytes;
  }

 private:
  RecordReader reader_{*stream_};
};

// Of all sends while this object lives, in their order.
class SizesOfSends {
 public:
  const std::vector<std::size_t>& Get() const { return sizes_; }

 private:
  std::vector<std::size_t> sizes_;
  const Hooked<ssize_t(int, const void*, std::size_t, int)> send_{
      Hooks().send, [this](int descriptor, const void* bytes, std::size_t size, int flags) {
        sizes_.push_back(size);
        return Hooks().send.Real(descriptor, bytes, size, flags);
      }};
};

}  // namespace

// Writing.

TEST_F(RecordTest, RecordIsAHeaderWithBothLengthsAndThenBothFields) {
  const bool written = Write({"ab", "xyz"});

  EXPECT_TRUE(written);
  EXPECT_EQ(peer_->ReceiveWaiting(), Bytes("\x00\x20\x00\x03") + "abxyz");
}

TEST_F(RecordTest, ShortestFieldsHaveOneByteEach) {
  Write({"k", "v"});

  EXPECT_EQ(peer_->ReceiveWaiting(), Bytes("\x00\x10\x00\x01") + "kv");
}

TEST_F(RecordTest, HeaderIsBigEndianWithTwelveBitsForAAndTwentyForB) {
  const std::string a(0x102, 'a');
  const std::string b(0x10304, 'b');

  const std::string bytes = PeerReceivesWhileWriting({a, b}, 4 + 0x102 + 0x10304);

  EXPECT_EQ(bytes.substr(0, 4), Bytes("\x10\x21\x03\x04"));
  EXPECT_TRUE(bytes.substr(4) == a + b) << "fields differ";
}

TEST_F(RecordTest, LongestFieldsFillTheHeader) {
  const std::string a(4095, 'a');
  const std::string b(1048575, 'b');

  const std::string bytes = PeerReceivesWhileWriting({a, b}, 4 + 4095 + 1048575);

  EXPECT_EQ(bytes.substr(0, 4), Bytes("\xFF\xFF\xFF\xFF"));
  EXPECT_TRUE(bytes.substr(4) == a + b) << "fields differ";
  EXPECT_EQ(peer_->ReceiveWaiting(), "");
}

TEST_F(RecordTest, FieldAAboveItsLimitIsCutToItsLengthModulo4096) {
  const std::string a = "first" + std::string(4096, '-');

  const bool written = Write({a, "v"});

  EXPECT_TRUE(written);
  EXPECT_EQ(peer_->ReceiveWaiting(), Bytes("\x00\x50\x00\x01") + "firstv");
}

TEST_F(RecordTest, FieldAIsCutModulo4096HoweverLongItIs) {
  const std::string a = "ab" + std::string(std::size_t{4096} * 300, '-');

  const bool written = Write({a, "v"});

  EXPECT_TRUE(written);
  EXPECT_EQ(peer_->ReceiveWaiting(), Bytes("\x00\x20\x00\x01") + "abv");
}

TEST_F(RecordTest, FieldBAboveItsLimitIsCutToItsLengthModulo1048576) {
  const std::string b = "first" + std::string(1048576, '-');

  const bool written = Write({"k", b});

  EXPECT_TRUE(written);
  EXPECT_EQ(peer_->ReceiveWaiting(), Bytes("\x00\x10\x00\x05") + "kfirst");
}

TEST_F(RecordTest, LengthOfALongFieldBLeavesFieldAAlone) {
  const std::string b(1048577, 'v');

  Write({"abc", b});

  EXPECT_EQ(peer_->ReceiveWaiting(), Bytes("\x00\x30\x00\x01") + "abcv");
}

TEST_F(RecordTest, ZerosInFieldsTravelUnharmed) {
  Write({Bytes("\0k\0"), Bytes("v\0\0w")});

  EXPECT_EQ(peer_->ReceiveWaiting(), Bytes("\x00\x30\x00\x04") + Bytes("\0k\0v\0\0w"));
}

TEST_F(RecordTest, EmptyFieldBIsAFailureThatSendsNothingYet) {
  const bool written = Write({"key", ""});

  EXPECT_FALSE(written);
  EXPECT_EQ(peer_->ReceiveWaiting(), "");
  EXPECT_FALSE(GetCookie().aborted);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(RecordTest, RecordWithAnEmptyFieldBLeavesWithTheNextRecord) {
  Write({"key", ""});

  const bool written = Write({"k", "v"});

  EXPECT_TRUE(written);
  EXPECT_EQ(peer_->ReceiveWaiting(), Bytes("\x00\x30\x00\x00") + "key" + Bytes("\x00\x10\x00\x01") + "kv");
}

TEST_F(RecordTest, RecordWithAnEmptyFieldBLeavesAtTheLatestWhenTheStreamIsClosed) {
  Write({"key", ""});

  CloseStream();

  EXPECT_EQ(peer_->ReceiveWaiting(), Bytes("\x00\x30\x00\x00") + "key");
}

TEST_F(RecordTest, EmptyFieldAIsAFailureAfterWhichFieldBIsLeftOut) {
  const bool written = Write({"", "value"});

  EXPECT_FALSE(written);
  EXPECT_EQ(peer_->ReceiveWaiting(), "");
  Write({"k", "v"});
  EXPECT_EQ(peer_->ReceiveWaiting(), Bytes("\x00\x00\x00\x05") + Bytes("\x00\x10\x00\x01") + "kv");
}

TEST_F(RecordTest, RecordOfTwoEmptyFieldsLeavesAsABareHeader) {
  const bool written = Write({"", ""});

  EXPECT_FALSE(written);
  Write({"k", "v"});
  EXPECT_EQ(peer_->ReceiveWaiting(), Bytes("\x00\x00\x00\x00") + Bytes("\x00\x10\x00\x01") + "kv");
}

TEST_F(RecordTest, FieldAOfExactly4096BytesCountsAsEmptyAndSpoilsTheStream) {
  const bool written = Write({std::string(4096, 'a'), "value"});

  EXPECT_FALSE(written);
  Write({"k", "v"});
  EXPECT_EQ(peer_->ReceiveWaiting(), Bytes("\x00\x00\x00\x05") + Bytes("\x00\x10\x00\x01") + "kv");
}

TEST_F(RecordTest, FieldBOfExactly1048576BytesCountsAsEmpty) {
  const bool written = Write({"key", std::string(1048576, 'b')});

  EXPECT_FALSE(written);
  Write({"k", "v"});
  EXPECT_EQ(peer_->ReceiveWaiting(), Bytes("\x00\x30\x00\x00") + "key" + Bytes("\x00\x10\x00\x01") + "kv");
}

TEST_F(RecordTest, EveryRecordIsFlushedOnceAndWhole) {
  const SizesOfSends sends;

  Write({"key", "value"});
  Write({"k", "v"});

  EXPECT_EQ(sends.Get(), (std::vector<std::size_t>{4 + 3 + 5, 4 + 1 + 1}));
}

TEST_F(RecordTest, LongRecordLeavesInPiecesOfTheBufferSizeOfStdio) {
  const SizesOfSends sends;

  Write({"key", std::string(20000 - 4 - 3, 'v')});

  EXPECT_EQ(sends.Get(), (std::vector<std::size_t>{BUFSIZ, BUFSIZ, 20000 - 2 * BUFSIZ}));
}

TEST_F(RecordTest, RecordsWithEmptyFieldsBLeaveWhenTheBufferIsFullOrWithTheNextRecord) {
  const SizesOfSends sends;
  std::string expected;

  for (int i = 0; i < 19; ++i) {
    const std::string key(996, static_cast<char>('a' + i));
    EXPECT_FALSE(Write({key, ""}));
    expected += Bytes("\x3E\x40\x00\x00") + key;
  }

  EXPECT_EQ(expected.size(), 19000U);
  EXPECT_EQ(sends.Get(), (std::vector<std::size_t>{BUFSIZ, BUFSIZ}));
  EXPECT_TRUE(Write({"k", "v"}));
  EXPECT_EQ(sends.Get(), (std::vector<std::size_t>{BUFSIZ, BUFSIZ, 19000 - 2 * BUFSIZ + 6}));
  EXPECT_TRUE(peer_->ReceiveWaiting() == expected + Bytes("\x00\x10\x00\x01") + "kv") << "bytes differ";
}

TEST_F(RecordTest, ProgramsFlushSendsARecordWithAnEmptyFieldBOnce) {
  Write({"key", ""});

  fflush(nullptr);

  EXPECT_EQ(peer_->ReceiveWaiting(), Bytes("\x00\x30\x00\x00") + "key");
  EXPECT_TRUE(Write({"k", "v"}));
  EXPECT_EQ(peer_->ReceiveWaiting(), Bytes("\x00\x10\x00\x01") + "kv");
}

TEST_F(RecordTest, RecordsFollowOneAnotherWithNothingBetween) {
  Write({"a", "1"});
  Write({"b", "22"});

  EXPECT_EQ(peer_->ReceiveWaiting(), Bytes("\x00\x10\x00\x01") + "a1" + Bytes("\x00\x10\x00\x02") + "b22");
}

TEST_F(RecordTest, WriteThatMeetsTheStopThrows) {
  SignalDone();

  EXPECT_THROW(Write({"k", std::string(100000, 'v')}), AbortRequested);
  EXPECT_TRUE(GetCookie().aborted);
  EXPECT_EQ(peer_->ReceiveWaiting(), "");
}

TEST_F(RecordTest, WriteWhoseFlushMeetsTheStopIsAPlainFailure) {
  SignalDone();

  const bool written = Write({"k", "v"});

  EXPECT_FALSE(written);
  EXPECT_TRUE(GetCookie().aborted);
}

TEST_F(RecordTest, EmptyFieldAfterAnAbortThrows) {
  SignalDone();
  Write({"k", "v"});

  EXPECT_THROW(Write({"key", ""}), AbortRequested);
}

TEST_F(RecordTest, WriteToAConnectionThatFailedIsAPlainFailure) {
  Hooked send(Hooks().send, FailWith{ECONNRESET});

  const bool written = Write({"k", std::string(100000, 'v')});

  EXPECT_FALSE(written);
  EXPECT_FALSE(GetCookie().aborted);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(RecordTest, FlushToAConnectionThatFailedIsAPlainFailure) {
  Hooked send(Hooks().send, FailWith{EPIPE});

  const bool written = Write({"k", "v"});

  EXPECT_FALSE(written);
  EXPECT_FALSE(GetCookie().aborted);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(RecordTest, ShortSendsLoseNothingOfARecord) {
  Hooked send(Hooks().send, [](int descriptor, const void* bytes, std::size_t size, int flags) {
    return Hooks().send.Real(descriptor, bytes, std::min<std::size_t>(size, 1000), flags);
  });
  const std::string a(4000, 'a');
  std::string b;
  while (b.size() < 200000) b += std::to_string(b.size()) + ' ';

  const std::string bytes = PeerReceivesWhileWriting({a, b}, 4 + a.size() + b.size());

  EXPECT_TRUE(bytes.substr(4) == a + b) << "fields differ";
}

// Reading.

TEST_F(RecordTest, RecordIsReadFromItsBytes) {
  peer_->Send(Bytes("\x00\x20\x00\x03") + "abxyz");

  Row record;
  const bool read = Read(record);

  EXPECT_TRUE(read);
  EXPECT_EQ(record, Row("ab", "xyz"));
}

TEST_F(RecordTest, HeaderIsReadAsBigEndian) {
  const std::string a(0x102, 'a');
  const std::string b(0x304, 'b');
  peer_->Send(Bytes("\x10\x20\x03\x04") + a + b);

  Row record;
  Read(record);

  EXPECT_EQ(record, Row(a, b));
}

TEST_F(RecordTest, LowFourBitsOfTheSecondByteBelongToFieldB) {
  const std::string b(0x10001, 'b');
  peer_->Send(Bytes("\x00\x11\x00\x01") + "k" + b);

  Row record;
  Read(record);

  EXPECT_EQ(record.first, "k");
  EXPECT_TRUE(record.second == b) << record.second.size() << " bytes";
}

TEST_F(RecordTest, LongestRecordIsReadWhole) {
  const std::string a(4095, 'a');
  const std::string b(1048575, 'b');
  std::thread peer([&] { peer_->Send(Bytes("\xFF\xFF\xFF\xFF") + a + b); });

  Row record;
  const bool read = Read(record);

  peer.join();
  EXPECT_TRUE(read);
  EXPECT_TRUE(record == Row(a, b)) << "fields differ";
}

TEST_F(RecordTest, EmptyFieldBIsAccepted) {
  peer_->Send(Bytes("\x00\x30\x00\x00") + "key");

  Row record("old", "old");
  const bool read = Read(record);

  EXPECT_TRUE(read);
  EXPECT_EQ(record, Row("key", ""));
}

TEST_F(RecordTest, EmptyFieldAIsAccepted) {
  peer_->Send(Bytes("\x00\x00\x00\x05") + "value");

  Row record("old", "old");
  const bool read = Read(record);

  EXPECT_TRUE(read);
  EXPECT_EQ(record, Row("", "value"));
}

TEST_F(RecordTest, TwoEmptyFieldsAreAccepted) {
  peer_->Send(Bytes("\x00\x00\x00\x00"));

  Row record("old", "old");
  const bool read = Read(record);

  EXPECT_TRUE(read);
  EXPECT_EQ(record, Row("", ""));
}

TEST_F(RecordTest, ZerosInFieldsAreReadUnharmed) {
  peer_->Send(Bytes("\x00\x30\x00\x04") + Bytes("\0k\0v\0\0w"));

  Row record;
  Read(record);

  EXPECT_EQ(record, Row(Bytes("\0k\0"), Bytes("v\0\0w")));
}

TEST_F(RecordTest, RecordsAreReadOneByOne) {
  peer_->Send(Bytes("\x00\x10\x00\x01") + "a1" + Bytes("\x00\x10\x00\x02") + "b22");

  Row first;
  Row second;
  Read(first);
  Read(second);

  EXPECT_EQ(first, Row("a", "1"));
  EXPECT_EQ(second, Row("b", "22"));
}

TEST_F(RecordTest, RecordOfUsualSizeIsReadWithoutAnAllocationAfterTheFirstTwo) {
  const std::string field(100, 'f');
  const std::string bytes = Bytes("\x06\x40\x00\x64") + field + field;
  peer_->Send(bytes + bytes + bytes);
  Row record;
  ASSERT_TRUE(Read(record));
  ASSERT_TRUE(Read(record));

  EXPECT_FALSE(RunsOutOfMemoryAt(1, [&] { EXPECT_TRUE(Read(record)); }));

  EXPECT_EQ(record.first, field);
  EXPECT_EQ(record.second, field);
}

TEST_F(RecordTest, ShortRecordDoesNotKeepTheMemoryOfALongOneBeforeIt) {
  peer_->Send(std::string("\x00\x10\x40\x00k", 5) + std::string(0x4000, 'v') + std::string("\x00\x10\x00\x01kv", 6));
  Row record;
  Read(record);
  const long live = LiveAllocations();

  Read(record);

  EXPECT_EQ(record, Row("k", "v"));
  EXPECT_EQ(LiveAllocations(), live - 1);
}

TEST_F(RecordTest, ShortRecordDoesNotKeepTheMemoryOfALongKeyBeforeIt) {
  const std::string short_record("\x00\x10\x00\x01kv", 6);
  const std::string longer = std::string("\xBB\x80\x00\x01", 4) + std::string(3000, 'k') + "v";
  // Memory that grows from 3,000 bytes is twice that.
  const std::string longest = std::string("\xFF\xF0\x00\x01", 4) + std::string(4095, 'k') + "v";
  peer_->Send(longer + short_record + longest + short_record);
  Row record;
  for (int read = 1; read <= 3; ++read) Read(record);
  const long live = LiveAllocations();

  Read(record);

  EXPECT_EQ(record, Row("k", "v"));
  EXPECT_EQ(LiveAllocations(), live - 1);
}

TEST_F(RecordTest, RecordIsThereAsSoonAsItsLastByteIs) {
  const std::string larger_than_the_buffer(10001, 'v');
  peer_->Send(Bytes("\x00\x10\x27\x11") + "k" + larger_than_the_buffer);
  Hooked recv(Hooks().recv, [](int descriptor, void* buffer, std::size_t size, int) {
    return Hooks().recv.Real(descriptor, buffer, size, MSG_DONTWAIT);
  });
  Hooked poll(Hooks().poll, [this](pollfd* entries, nfds_t count, int) {
    if (Hooks().poll.Real(entries, count, 0) == 0) SignalDone();  // It waits for more than there is.
    return Hooks().poll.Real(entries, count, -1);
  });

  Row record;
  const bool read = Read(record);

  EXPECT_TRUE(read);
  EXPECT_EQ(record, Row("k", larger_than_the_buffer));
}

TEST_F(RecordTest, RecordThatComesByteByByteIsTheSame) {
  Hooked recv(Hooks().recv, [](int descriptor, void* buffer, std::size_t, int flags) {
    return Hooks().recv.Real(descriptor, buffer, 1, flags);
  });
  const std::string b(9000, 'b');
  peer_->Send(Bytes("\x00\x20\x23\x28") + "ab" + b);

  Row record;
  const bool read = Read(record);

  EXPECT_TRUE(read);
  EXPECT_EQ(record, Row("ab", b));
}

TEST_F(RecordTest, StreamThatHasEndedIsAPlainFailure) {
  peer_->Close();

  Row record("old", "row");
  const bool read = Read(record);

  EXPECT_FALSE(read);
  EXPECT_EQ(record, Row("old", "row"));
  EXPECT_FALSE(GetCookie().aborted);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(RecordTest, ReadErrorIsAPlainFailure) {
  peer_->Send(Bytes("\x00\x10\x00\x01") + "kv");
  Hooked recv(Hooks().recv, FailWith{ECONNRESET});

  Row record("old", "row");
  const bool read = Read(record);

  EXPECT_FALSE(read);
  EXPECT_EQ(record, Row("old", "row"));
  EXPECT_FALSE(GetCookie().aborted);
}

TEST_F(RecordTest, ReadThatMeetsTheStopThrows) {
  peer_->Send(Bytes("\x00\x10\x00\x01") + "kv");
  SignalDone();

  Row record("old", "row");
  EXPECT_THROW(Read(record), AbortRequested);
  EXPECT_EQ(record, Row("old", "row"));
}

TEST_F(RecordTest, WrittenRecordIsReadBack) {
  Write({Bytes("\5table\0key"), Bytes("\0value\xFF")});
  peer_->Send(peer_->ReceiveWaiting());

  Row record;
  Read(record);

  EXPECT_EQ(record, Row(Bytes("\5table\0key"), Bytes("\0value\xFF")));
}

// Every byte of a record at which it can break off.
class BrokenRecordTest : public RecordTest, public testing::WithParamInterface<std::size_t> {
 protected:
  const std::string arrived_ = (Bytes("\x00\x20\x00\x03") + "abxyz").substr(0, GetParam());
};

INSTANTIATE_TEST_SUITE_P(AfterBytes, BrokenRecordTest, testing::Range<std::size_t>(0, 9));

TEST_P(BrokenRecordTest, IsAPlainFailureWhenTheStreamEnds) {
  peer_->Send(arrived_);
  peer_->Close();

  Row record("old", "row");
  const bool read = Read(record);

  EXPECT_FALSE(read);
  EXPECT_EQ(record, Row("old", "row"));
  EXPECT_FALSE(GetCookie().aborted);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_P(BrokenRecordTest, ThrowsWhenTheServerStops) {
  peer_->Send(arrived_);
  Hooked poll(Hooks().poll, [this](pollfd* entries, nfds_t count, int time_out) {
    if (Hooks().poll.Real(entries, count, 0) == 0) SignalDone();  // When all that arrived has been read.
    return Hooks().poll.Real(entries, count, time_out);
  });

  Row record("old", "row");
  EXPECT_THROW(Read(record), AbortRequested);
  EXPECT_EQ(record, Row("old", "row"));
  EXPECT_TRUE(GetCookie().aborted);
}
