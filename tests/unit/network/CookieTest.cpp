// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/ioctl.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ConnectionTest.h"
#include "PeerSocket.h"
#include "logging/Log.h"
#include "network/Record.h"
#include "network/ServerSockets.h"
#include "network/StopExceptions.h"
#include "support/Descriptors.h"
#include "support/FailWith.h"
#include "support/FailingAllocations.h"
#include "support/IsKept.h"
#include "support/Says.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Trace = std::vector<std::string>;

class CookieTest : public ConnectionTest {
 protected:
  ssize_t Write(const std::string& bytes) { return Cookie::Write(&GetCookie(), bytes.data(), bytes.size()); }
  ssize_t Read(std::string& bytes, std::size_t size = 100) {
    bytes.assign(size, '\0');
    const ssize_t received = Cookie::Read(&GetCookie(), bytes.data(), bytes.size());
    bytes.resize(received < 0 ? 0 : static_cast<std::size_t>(received));
    return received;
  }
  ssize_t Read() {
    std::string bytes;
    return Read(bytes);
  }
  // `write` writes the rows while the program flushes all the time: they arrive as they are, and nothing else does.
  void ArriveWhileTheProgramFlushes(const std::vector<Varnix::Row>& rows,
                                    const std::function<void(const std::vector<Varnix::Row>&)>& write);
};

// "poll" for each poll, and "send 7" for each send of 7 bytes, of which the connection takes at most `capacity`.
class TraceOfWriting {
 public:
  explicit TraceOfWriting(std::size_t capacity)
      : poll_(Hooks().poll,
              [this](pollfd* entries, nfds_t count, int time_out) {
                trace.emplace_back("poll");
                return Hooks().poll.Real(entries, count, time_out);
              }),
        send_(Hooks().send, [this, capacity](int descriptor, const void* bytes, std::size_t size, int flags) {
          trace.push_back("send " + std::to_string(size));
          return Hooks().send.Real(descriptor, bytes, std::min(size, capacity), flags);
        }) {}

  Trace trace;

 private:
  Hooked<int(pollfd*, nfds_t, int)> poll_;
  Hooked<ssize_t(int, const void*, std::size_t, int)> send_;
};

// Counts what arrives at the process while it lives.
class SigpipeCounter {
 public:
  SigpipeCounter() {
    Count() = 0;
    struct sigaction action {};
    action.sa_handler = [](int) { ++Count(); };
    sigaction(SIGPIPE, &action, &previous_);
  }
  ~SigpipeCounter() { sigaction(SIGPIPE, &previous_, nullptr); }
  SigpipeCounter(const SigpipeCounter&) = delete;
  SigpipeCounter& operator=(const SigpipeCounter&) = delete;

  static std::atomic<int>& Count() {
    static std::atomic<int> count{0};
    return count;
  }

 private:
  struct sigaction previous_ {};
};

}  // namespace

// Writing.

TEST_F(CookieTest, WriteSendsTheBytesAndReturnsTheirNumber) {
  const ssize_t written = Write(std::string("ab\0cd", 5));

  EXPECT_EQ(written, 5);
  EXPECT_EQ(peer_->ReceiveWaiting(), std::string("ab\0cd", 5));
  EXPECT_FALSE(GetCookie().aborted);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(CookieTest, WriteWaitsForTheDonePipeFirstAndForRoomInTheSocketWithoutLimit) {
  std::vector<pollfd> waited_for;
  int limit = 0;
  Hooked poll(Hooks().poll, [&](pollfd* entries, nfds_t count, int time_out) {
    waited_for.assign(entries, entries + count);
    limit = time_out;
    return Hooks().poll.Real(entries, count, time_out);
  });

  Write("a");

  ASSERT_EQ(waited_for.size(), 2U);
  EXPECT_EQ(waited_for[0].fd, done_[0]);
  EXPECT_EQ(waited_for[0].events, POLLIN);
  EXPECT_EQ(waited_for[1].fd, stream_->Socket());
  EXPECT_EQ(waited_for[1].events, POLLOUT);
  EXPECT_EQ(limit, -1);
}

TEST_F(CookieTest, WriteSendsWithoutWaitingAndWithoutSignal) {
  int sent_to = -1;
  int sent_with = 0;
  Hooked send(Hooks().send, [&](int descriptor, const void*, std::size_t size, int flags) {
    sent_to = descriptor;
    sent_with = flags;
    return static_cast<ssize_t>(size);
  });

  Write("a");

  EXPECT_EQ(sent_to, stream_->Socket());
  EXPECT_EQ(sent_with, MSG_DONTWAIT | MSG_NOSIGNAL);
}

TEST_F(CookieTest, WriteGoesOnWithTheRestOfAShortSendUntilAllIsTaken) {
  TraceOfWriting writing(3);

  const ssize_t written = Write("abcdefgh");

  EXPECT_EQ(written, 8);
  EXPECT_EQ(peer_->ReceiveWaiting(), "abcdefgh");
  EXPECT_THAT(writing.trace, ElementsAre("poll", "send 8", "poll", "send 5", "poll", "send 2"));
}

TEST_F(CookieTest, WriteGoesOnWhenNothingWasTaken) {
  int sends = 0;
  Hooked send(Hooks().send, [&](int descriptor, const void* bytes, std::size_t size, int flags) {
    return ++sends == 1 ? ssize_t{0} : Hooks().send.Real(descriptor, bytes, size, flags);
  });

  const ssize_t written = Write("abc");

  EXPECT_EQ(written, 3);
  EXPECT_EQ(peer_->ReceiveWaiting(), "abc");
}

TEST_F(CookieTest, WriteStopsBetweenTwoPiecesWhenTheDonePipeBecomesReadable) {
  Hooked send(Hooks().send, [&](int descriptor, const void* bytes, std::size_t, int flags) {
    SignalDone();
    return Hooks().send.Real(descriptor, bytes, 3, flags);
  });

  const ssize_t written = Write("abcdefgh");

  EXPECT_EQ(written, 0);
  EXPECT_TRUE(GetCookie().aborted);
  EXPECT_EQ(peer_->ReceiveWaiting(), "abc");
}

TEST_F(CookieTest, WriteStopsSilentlyBetweenTwoPiecesWhenTheConnectionFails) {
  int sends = 0;
  Hooked send(Hooks().send,
              [&](int, const void*, std::size_t, int) { return ++sends == 1 ? 3 : FailWith{ECONNRESET}(); });

  const ssize_t written = Write("abcdefgh");

  EXPECT_EQ(written, 0);
  EXPECT_EQ(sends, 2);
  EXPECT_FALSE(GetCookie().aborted);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(CookieTest, WriteThatFailsEndsTheConnectionForThePeerToo) {
  const Hooked send(Hooks().send, FailWith{ENOBUFS});

  EXPECT_EQ(Write("abc"), 0);

  EXPECT_EQ(peer_->ReceiveUntilEnd(), "");
}

TEST_F(CookieTest, WriteWaitsAgainWhenTheSocketHasNoEvent) {
  int polls = 0;
  Hooked poll(Hooks().poll, [&](pollfd* entries, nfds_t count, int time_out) {
    if (++polls == 1) return 0;
    return Hooks().poll.Real(entries, count, time_out);
  });

  const ssize_t written = Write("abc");

  EXPECT_EQ(written, 3);
  EXPECT_EQ(polls, 2);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(CookieTest, InterruptedPollOfAWriteIsRetriedSilently) {
  Hooked poll(Hooks().poll, FailOnce(Hooks().poll, EINTR));

  const ssize_t written = Write("abc");

  EXPECT_EQ(written, 3);
  EXPECT_EQ(peer_->ReceiveWaiting(), "abc");
  EXPECT_FALSE(GetCookie().aborted);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(CookieTest, InterruptedSendIsRetriedSilentlyAfterAnotherPoll) {
  Trace trace;
  Hooked poll(Hooks().poll, [&](pollfd* entries, nfds_t count, int time_out) {
    trace.emplace_back("poll");
    return Hooks().poll.Real(entries, count, time_out);
  });
  const auto interrupted = FailOnce(Hooks().send, EINTR);
  Hooked send(Hooks().send, [&](int descriptor, const void* bytes, std::size_t size, int flags) {
    trace.push_back("send " + std::to_string(size));
    return interrupted(descriptor, bytes, size, flags);
  });

  const ssize_t written = Write("abc");

  EXPECT_EQ(written, 3);
  EXPECT_EQ(peer_->ReceiveWaiting(), "abc");
  EXPECT_THAT(trace, ElementsAre("poll", "send 3", "poll", "send 3"));
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(CookieTest, WriteThatIsInterruptedBetweenTwoPiecesSendsNoByteTwice) {
  Trace trace;
  int sends = 0;
  Hooked send(Hooks().send, [&](int descriptor, const void* bytes, std::size_t size, int flags) {
    trace.push_back("send " + std::to_string(size));
    if (++sends == 2) return static_cast<ssize_t>(FailWith{EINTR}());
    return Hooks().send.Real(descriptor, bytes, std::min(size, std::size_t{4}), flags);
  });
  Hooked poll(Hooks().poll, FailOnce(Hooks().poll, EINTR));

  const ssize_t written = Write("abcdefgh");

  EXPECT_EQ(written, 8);
  EXPECT_EQ(peer_->ReceiveWaiting(), "abcdefgh");
  EXPECT_THAT(trace, ElementsAre("send 8", "send 4", "send 4"));
}

TEST_F(CookieTest, WriteToAPeerThatHasResetReturnsZeroWithoutLogLineOrSignal) {
  SigpipeCounter signals;
  PeerSocket peer;
  peer.ends = false;
  const FileDescriptor ours = OpenSocket(SOCK_STREAM);
  ASSERT_EQ(peer.Connect(ours.Get()), 0);
  Cookie cookie(ours, done_[0]);
  peer.Reset();
  ASSERT_NE(AwaitInput(ours.Get(), 10000), 0) << "the reset did not arrive";

  const ssize_t after_reset = Cookie::Write(&cookie, "a", 1);  // ECONNRESET.
  const ssize_t later = Cookie::Write(&cookie, "a", 1);        // EPIPE, which would raise the signal.

  EXPECT_EQ(after_reset, 0);
  EXPECT_EQ(later, 0);
  EXPECT_FALSE(cookie.aborted);
  EXPECT_THAT(log_.Lines(), IsEmpty());
  EXPECT_EQ(signals.Count(), 0);
}

TEST_F(CookieTest, StreamThatIsClosedAfterItsPeerRaisesNoSignal) {
  SigpipeCounter signals;
  FILE* const stream = OpenStream();
  fwrite("abc", 3, 1, stream);
  peer_->Close();

  CloseStream();

  EXPECT_EQ(signals.Count(), 0);
}

TEST_F(CookieTest, FailedPollOfAWriteEndsTheProcess) {
  const auto write = [this] {
    Connect();
    SetLogHook(DefaultLogger);
    Hooked poll(Hooks().poll, FailWith{EINVAL});
    Write("abc");
  };

  EXPECT_EXIT(write(), testing::KilledBySignal(SIGABRT),
              Says("cook.wr.poll: Cookie::Write: poll error 22: Invalid argument\n"));
}

TEST_F(CookieTest, SendThatWouldBlockThoughTheSocketIsWritableEndsTheProcess) {
  const auto write = [this] {
    Connect();
    SetLogHook(DefaultLogger);
    Hooked send(Hooks().send, FailWith{EAGAIN});
    Write("abc");
  };

  EXPECT_EXIT(write(), testing::KilledBySignal(SIGABRT),
              Says("cook.wr.wr: Cookie::Write: send error 11: Resource temporarily unavailable\n"));
}

TEST_F(CookieTest, StopWinsOverRoomInTheSocket) {
  SignalDone();

  const ssize_t written = Write("abc");

  EXPECT_EQ(written, 0);
  EXPECT_TRUE(GetCookie().aborted);
  EXPECT_EQ(peer_->ReceiveWaiting(), "");
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(CookieTest, BlockedWriteReturnsZeroWhenTheServerStops) {
  FillConnection();
  WaitingInPoll waiting;
  std::thread stopping([&] {
    EXPECT_TRUE(waiting.Eventually());
    SignalDone();
  });

  const ssize_t written = Write("abc");

  stopping.join();
  EXPECT_EQ(written, 0);
  EXPECT_TRUE(GetCookie().aborted);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

// Reading.

TEST_F(CookieTest, ReadReturnsWhatHasArrived) {
  peer_->Send(std::string("ab\0cd", 5));

  std::string bytes;
  const ssize_t received = Read(bytes, 100);

  EXPECT_EQ(received, 5);
  EXPECT_EQ(bytes, std::string("ab\0cd", 5));
  EXPECT_FALSE(GetCookie().aborted);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(CookieTest, ReadTakesNoMoreThanItWasAskedFor) {
  peer_->Send("abcdef");

  std::string bytes;
  const ssize_t received = Read(bytes, 4);

  EXPECT_EQ(received, 4);
  EXPECT_EQ(bytes, "abcd");
}

TEST_F(CookieTest, ReadWaitsForTheDonePipeFirstAndForTheSocketWithoutLimit) {
  std::vector<pollfd> waited_for;
  int limit = 0;
  Hooked poll(Hooks().poll, [&](pollfd* entries, nfds_t count, int time_out) {
    waited_for.assign(entries, entries + count);
    limit = time_out;
    return Hooks().poll.Real(entries, count, time_out);
  });
  peer_->Send("a");

  Read();

  ASSERT_EQ(waited_for.size(), 2U);
  EXPECT_EQ(waited_for[0].fd, done_[0]);
  EXPECT_EQ(waited_for[0].events, POLLIN);
  EXPECT_EQ(waited_for[1].fd, stream_->Socket());
  EXPECT_EQ(waited_for[1].events, POLLIN);
  EXPECT_EQ(limit, -1);
}

TEST_F(CookieTest, ReadReceivesIntoTheBufferWithoutFlags) {
  int received_from = -1;
  std::size_t room = 0;
  int received_with = -1;
  Hooked recv(Hooks().recv, [&](int descriptor, void* buffer, std::size_t size, int flags) {
    received_from = descriptor;
    room = size;
    received_with = flags;
    return Hooks().recv.Real(descriptor, buffer, size, flags);
  });
  peer_->Send("a");

  std::string bytes;
  Read(bytes, 17);

  EXPECT_EQ(received_from, stream_->Socket());
  EXPECT_EQ(room, 17U);
  EXPECT_EQ(received_with, 0);
}

TEST_F(CookieTest, ReadReturnsZeroWhenThePeerHasClosed) {
  peer_->Close();

  const ssize_t received = Read();

  EXPECT_EQ(received, 0);
  EXPECT_FALSE(GetCookie().aborted);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(CookieTest, StreamEndsWhenThePeerHasClosed) {
  FILE* const stream = OpenStream();
  peer_->Send("ab");
  peer_->Close();

  char bytes[3];
  const std::size_t items = fread(bytes, sizeof bytes, 1, stream);

  EXPECT_EQ(items, 0U);
  EXPECT_TRUE(feof(stream));
  EXPECT_FALSE(GetCookie().aborted);
  CloseStream();
}

TEST_F(CookieTest, ReadWaitsAgainWhenTheSocketHasNoEvent) {
  int polls = 0;
  Hooked poll(Hooks().poll, [&](pollfd* entries, nfds_t count, int time_out) {
    if (++polls == 1) return 0;
    return Hooks().poll.Real(entries, count, time_out);
  });
  peer_->Send("abc");

  const ssize_t received = Read();

  EXPECT_EQ(received, 3);
  EXPECT_EQ(polls, 2);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(CookieTest, InterruptedPollOfAReadIsRetriedSilently) {
  Hooked poll(Hooks().poll, FailOnce(Hooks().poll, EINTR));
  peer_->Send("abc");

  const ssize_t received = Read();

  EXPECT_EQ(received, 3);
  EXPECT_FALSE(GetCookie().aborted);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(CookieTest, InterruptedRecvIsRetriedSilentlyAfterAnotherPoll) {
  Trace trace;
  Hooked poll(Hooks().poll, [&](pollfd* entries, nfds_t count, int time_out) {
    trace.emplace_back("poll");
    return Hooks().poll.Real(entries, count, time_out);
  });
  const auto interrupted = FailOnce(Hooks().recv, EINTR);
  Hooked recv(Hooks().recv, [&](int descriptor, void* buffer, std::size_t size, int flags) {
    trace.emplace_back("recv");
    return interrupted(descriptor, buffer, size, flags);
  });
  peer_->Send("abc");

  const ssize_t received = Read();

  EXPECT_EQ(received, 3);
  EXPECT_THAT(trace, ElementsAre("poll", "recv", "poll", "recv"));
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(CookieTest, ReadErrorIsLoggedAndReturned) {
  Hooked recv(Hooks().recv, FailWith{ECONNRESET});
  peer_->Send("abc");

  const ssize_t received = Read();

  EXPECT_EQ(received, -1);
  EXPECT_FALSE(GetCookie().aborted);
  EXPECT_THAT(log_.Lines(),
              ElementsAre(LogLine{Varnix::LogLevel::Error, "cook.rd.rd", "Cookie::Read: read error 104", ""}));
}

TEST_F(CookieTest, ReadThatWouldBlockIsAnErrorLikeAnyOther) {
  Hooked recv(Hooks().recv, FailWith{EAGAIN});
  peer_->Send("abc");

  const ssize_t received = Read();

  EXPECT_EQ(received, -1);
  EXPECT_THAT(log_.Lines(),
              ElementsAre(LogLine{Varnix::LogLevel::Error, "cook.rd.rd", "Cookie::Read: read error 11", ""}));
}

TEST_F(CookieTest, FailedPollOfAReadEndsTheProcess) {
  const auto read = [this] {
    SetLogHook(DefaultLogger);
    Hooked poll(Hooks().poll, FailWith{ENOMEM});
    Read();
  };

  EXPECT_EXIT(read(), testing::KilledBySignal(SIGABRT),
              Says("cook.rd.poll: Cookie::Read: poll error 12: Cannot allocate memory\n"));
}

TEST_F(CookieTest, StopWinsOverPendingData) {
  peer_->Send("abc");
  SignalDone();

  const ssize_t received = Read();

  EXPECT_EQ(received, -1);
  EXPECT_TRUE(GetCookie().aborted);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(CookieTest, StopWinsOverTheEndOfTheStream) {
  peer_->Close();
  SignalDone();

  const ssize_t received = Read();

  EXPECT_EQ(received, -1);
  EXPECT_TRUE(GetCookie().aborted);
}

TEST_F(CookieTest, BlockedReadReturnsMinusOneWhenTheServerStops) {
  WaitingInPoll waiting;
  ssize_t received = 0;
  std::thread reader([&] { received = Read(); });
  EXPECT_TRUE(waiting.Eventually());

  SignalDone();

  reader.join();
  EXPECT_EQ(received, -1);
  EXPECT_TRUE(GetCookie().aborted);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

// Stopping.

TEST_F(CookieTest, ReadAfterAnAbortReturnsAtOnceAgain) {
  SignalDone();
  Read();

  const ssize_t received = Read();

  EXPECT_EQ(received, -1);
  EXPECT_TRUE(GetCookie().aborted);
}

TEST_F(CookieTest, WriteAfterAnAbortReturnsAtOnceAgain) {
  FillConnection();
  SignalDone();
  Write("abc");

  const ssize_t written = Write("abc");

  EXPECT_EQ(written, 0);
  EXPECT_TRUE(GetCookie().aborted);
}

TEST_F(CookieTest, DoneByteStaysInThePipeForTheOtherStreams) {
  SignalDone();

  Read();
  Write("abc");

  int bytes = 0;
  ASSERT_EQ(ioctl(done_[0], FIONREAD, &bytes), 0);
  EXPECT_EQ(bytes, 1);
}

TEST_F(CookieTest, AnyEventOnTheDonePipeIsAStop) {
  Hooked poll(Hooks().poll, [](pollfd* entries, nfds_t, int) {
    entries[0].revents = POLLERR;
    entries[1].revents = POLLIN;
    return 2;
  });

  const ssize_t received = Read();

  EXPECT_EQ(received, -1);
  EXPECT_TRUE(GetCookie().aborted);
}

TEST_F(CookieTest, AnyEventOnTheDonePipeStopsAWrite) {
  Hooked poll(Hooks().poll, [](pollfd* entries, nfds_t, int) {
    entries[0].revents = POLLHUP;
    return 1;
  });

  EXPECT_EQ(Write("abc"), 0);

  EXPECT_TRUE(GetCookie().aborted);
}

TEST_F(CookieTest, AnyEventOnTheSocketEndsTheWait) {
  int polls = 0;
  Hooked poll(Hooks().poll, [&](pollfd* entries, nfds_t, int) {
    entries[0].revents = ++polls > 1 ? POLLIN : 0;
    entries[1].revents = POLLHUP;
    return 1;
  });
  peer_->Close();

  const ssize_t received = Read();

  EXPECT_EQ(received, 0);
  EXPECT_FALSE(GetCookie().aborted);
}

TEST_F(CookieTest, StopIsForgottenByNoLaterSuccess) {
  SignalDone();
  Read();
  char byte;
  ASSERT_EQ(read(done_[0], &byte, 1), 1);

  const ssize_t written = Write("abc");

  EXPECT_EQ(written, 3);
  EXPECT_TRUE(GetCookie().aborted);
}

TEST_F(CookieTest, StreamReadsShortWhenTheServerStops) {
  FILE* const stream = OpenStream();
  SignalDone();

  char byte;
  const std::size_t items = fread(&byte, 1, 1, stream);

  EXPECT_EQ(items, 0U);
  EXPECT_TRUE(GetCookie().aborted);
  CloseStream();
}

TEST_F(CookieTest, StreamWritesShortWhenTheServerStops) {
  FILE* const stream = OpenStream();
  SignalDone();

  const std::string larger_than_the_buffer(100000, 'a');
  const std::size_t items = fwrite(larger_than_the_buffer.data(), larger_than_the_buffer.size(), 1, stream);

  EXPECT_EQ(items, 0U);
  EXPECT_TRUE(GetCookie().aborted);
  CloseStream();
}

// The program flushes every stream of the process.

namespace {

// fflush(nullptr) on a thread of its own: true when it returns within ten seconds. `unblock` ends a hanging one.
template <class Unblock>
bool ProgramsFlushReturns(Unblock unblock) {
  std::promise<void> returned;
  std::thread program([&] {
    fflush(nullptr);
    returned.set_value();
  });
  const bool in_time = IsKept(returned);
  if (!in_time) unblock();
  program.join();
  return in_time;
}

bool IsLockedForOthers(FILE* stream) {
  bool locked = false;
  std::thread([&] {
    locked = ftrylockfile(stream) != 0;
    if (!locked) funlockfile(stream);
  }).join();
  return locked;
}

// What a program may do at any time.
class ProgramThatFlushes {
 public:
  ProgramThatFlushes()
      : thread_([this] {
          while (!stop_) {
            fflush(nullptr);
            ++flushes_;
          }
        }) {}
  ~ProgramThatFlushes() {
    stop_ = true;
    thread_.join();
  }
  ProgramThatFlushes(const ProgramThatFlushes&) = delete;
  ProgramThatFlushes& operator=(const ProgramThatFlushes&) = delete;

  int Flushes() const { return flushes_; }

 private:
  std::atomic<bool> stop_{false};
  std::atomic<int> flushes_{0};
  std::thread thread_;
};

// Of all sizes around those of stdio's and the connection's buffers.
std::vector<Varnix::Row> RowsOfManySizes() {
  std::vector<Varnix::Row> rows;
  for (std::size_t i = 0; i < 400; ++i) {
    const std::size_t key_size = 1 + i * 37 % 4095;
    const std::size_t value_size = i % 20 == 0 ? 300000 + i : 1 + i * 131 % 9000;
    rows.emplace_back(std::string(key_size, static_cast<char>(i)), std::string(value_size, static_cast<char>(i * 7)));
  }
  return rows;
}

std::string BytesOf(const std::vector<Varnix::Row>& rows) {
  std::string bytes;
  for (const auto& [key, value] : rows) {
    const std::size_t lengths = key.size() << 20 | value.size();
    for (const int shift : {24, 16, 8, 0}) bytes.push_back(static_cast<char>(lengths >> shift & 0xFF));
    bytes += key + value;
  }
  return bytes;
}

void CookieTest::ArriveWhileTheProgramFlushes(const std::vector<Varnix::Row>& rows,
                                              const std::function<void(const std::vector<Varnix::Row>&)>& write) {
  OpenStream();
  const std::string expected = BytesOf(rows);
  std::string received;
  std::thread peer([&] { received = peer_->Receive(expected.size()); });

  {
    ProgramThatFlushes program;
    while (program.Flushes() == 0) std::this_thread::yield();
    write(rows);
    peer.join();
  }

  EXPECT_TRUE(received == expected) << "bytes differ";
  EXPECT_EQ(peer_->ReceiveWaiting(), "") << "more than was written";
  CloseStream();
}

}  // namespace

TEST_F(CookieTest, ProgramsFlushDoesNotWaitForAnIdleReceivingStream) {
  OpenStream();
  WaitingInPoll waiting;
  Varnix::Row received;
  std::thread receiver([&] { RecordReader(*stream_).Read(received); });
  EXPECT_TRUE(waiting.Eventually());

  const bool returned = ProgramsFlushReturns([this] { peer_->Close(); });

  EXPECT_TRUE(returned);
  if (returned) peer_->Send(std::string("\x00\x10\x00\x02kvv", 7));
  receiver.join();
  EXPECT_EQ(received, Varnix::Row("k", "vv"));
  CloseStream();
}

TEST_F(CookieTest, ProgramsFlushDoesNotWaitForAStreamInTheMiddleOfARecord) {
  OpenStream();
  peer_->Send(std::string("\x00\x10\x00\x02k", 5));
  Varnix::Row received;
  std::promise<void> in_the_middle;
  Hooked poll(Hooks().poll, [&, polls = std::make_shared<int>(0)](pollfd* entries, nfds_t count, int time_out) {
    if (++*polls == 2) in_the_middle.set_value();
    return Hooks().poll.Real(entries, count, time_out);
  });
  std::thread receiver([&] { RecordReader(*stream_).Read(received); });
  in_the_middle.get_future().wait();

  const bool returned = ProgramsFlushReturns([this] { peer_->Close(); });

  EXPECT_TRUE(returned);
  if (returned) peer_->Send("vv");
  receiver.join();
  EXPECT_EQ(received, Varnix::Row("k", "vv"));
  CloseStream();
}

TEST_F(CookieTest, ProgramsFlushDoesNotWaitForAWriterThatAStalledPeerBlocks) {
  OpenStream();
  const std::size_t filled = FillConnection();
  WaitingInPoll waiting;
  bool written = false;
  std::thread sender([&] { written = WriteRecord({"k", "vv"}, *stream_); });
  EXPECT_TRUE(waiting.Eventually());

  const bool returned = ProgramsFlushReturns([this] { peer_->Close(); });

  EXPECT_TRUE(returned);
  EXPECT_EQ(returned ? peer_->Receive(filled).size() : filled, filled);
  sender.join();
  EXPECT_TRUE(written);
  EXPECT_EQ(peer_->ReceiveWaiting(), std::string("\x00\x10\x00\x02kvv", 7));
  CloseStream();
}

TEST_F(CookieTest, ProgramsFlushLeavesToOurThreadWhatAStalledPeerDoesNotTake) {
  OpenStream();
  const std::size_t filled = FillConnection();
  EXPECT_FALSE(WriteRecord({"k", ""}, *stream_));
  EXPECT_TRUE(ProgramsFlushReturns([this] { peer_->Close(); }));
  EXPECT_FALSE(WriteRecord({"l", ""}, *stream_));
  EXPECT_TRUE(ProgramsFlushReturns([this] { peer_->Close(); }));
  EXPECT_EQ(peer_->Receive(filled).size(), filled);

  EXPECT_TRUE(WriteRecord({"m", "v"}, *stream_));

  EXPECT_EQ(peer_->ReceiveWaiting(), std::string("\x00\x10\x00\x00k\x00\x10\x00\x00l\x00\x10\x00\x01mv", 16));
  CloseStream();
}

TEST_F(CookieTest, OurFlushSendsWhatAProgramsFlushHasLeftAlthoughTheBufferIsEmpty) {
  OpenStream();
  const std::size_t filled = FillConnection();
  EXPECT_TRUE(BufferRecord({"k", "v"}, *stream_));
  EXPECT_TRUE(ProgramsFlushReturns([this] { peer_->Close(); }));
  EXPECT_EQ(peer_->Receive(filled).size(), filled);

  EXPECT_TRUE(FlushRecords(*stream_));

  EXPECT_EQ(peer_->ReceiveWaiting(), std::string("\x00\x10\x00\x01kv", 6));
  CloseStream();
}

TEST_F(CookieTest, ProgramsFlushSendsFirstWhatAnEarlierOneHasLeft) {
  OpenStream();
  const std::size_t filled = FillConnection();
  EXPECT_FALSE(WriteRecord({"k", ""}, *stream_));
  EXPECT_TRUE(ProgramsFlushReturns([this] { peer_->Close(); }));
  EXPECT_EQ(peer_->Receive(filled).size(), filled);
  EXPECT_FALSE(WriteRecord({"l", ""}, *stream_));

  EXPECT_TRUE(ProgramsFlushReturns([this] { peer_->Close(); }));

  EXPECT_EQ(peer_->ReceiveWaiting(), std::string("\x00\x10\x00\x00k\x00\x10\x00\x00l", 10));
  EXPECT_TRUE(WriteRecord({"m", "v"}, *stream_));
  EXPECT_EQ(peer_->ReceiveWaiting(), std::string("\x00\x10\x00\x01mv", 6)) << "and nothing twice";
  CloseStream();
}

TEST_F(CookieTest, WhatAProgramsFlushHasLeftToOurThreadIsSentOnce) {
  OpenStream();
  for (const std::string& key : {std::string("k"), std::string("l")}) {
    const std::size_t filled = FillConnection();
    EXPECT_FALSE(WriteRecord({key, ""}, *stream_));
    EXPECT_TRUE(ProgramsFlushReturns([this] { peer_->Close(); }));
    EXPECT_EQ(peer_->Receive(filled).size(), filled);

    EXPECT_TRUE(WriteRecord({"m", "v"}, *stream_));

    EXPECT_EQ(peer_->ReceiveWaiting(), std::string("\x00\x10\x00\x00", 4) + key + std::string("\x00\x10\x00\x01mv", 6));
  }
  CloseStream();
}

TEST_F(CookieTest, ProgramsFlushNeedsNoMemoryWhereThePeerTakesAllAtOnce) {
  FILE* const stream = OpenStream();
  EXPECT_FALSE(WriteRecord({std::string(100, 'k'), ""}, *stream_));

  std::thread([&] { EXPECT_FALSE(RunsOutOfMemoryAt(1, [&] { fflush(stream); })); }).join();

  EXPECT_EQ(peer_->ReceiveWaiting(), std::string("\x06\x40\x00\x00", 4) + std::string(100, 'k'));
  CloseStream();
}

TEST_F(CookieTest, ProgramsFlushWithoutMemoryForWhatAStalledPeerDoesNotTakeEndsTheStream) {
  FILE* const stream = OpenStream();
  const std::size_t filled = FillConnection();
  EXPECT_FALSE(WriteRecord({std::string(100, 'k'), ""}, *stream_));

  std::thread([&] {
    const FailingAllocation failing(1);
    fflush(stream);
  }).join();

  EXPECT_EQ(peer_->ReceiveUntilEnd().size(), filled);
  CloseStream();
}

TEST_F(CookieTest, LogHookThatFlushesOnOurThreadDoesNotWaitForAStalledPeer) {
  OpenStream();
  FillConnection();
  EXPECT_FALSE(WriteRecord({"k", ""}, *stream_));
  SetLogHook([](Varnix::LogLevel, const char*, const char*, va_list) { fflush(nullptr); });
  std::promise<void> logged;
  bool in_time = false;
  std::thread patience([&] {
    in_time = IsKept(logged);
    if (!in_time) peer_->Close();
  });

  Log(Varnix::LogLevel::Debug, "tag", "format");

  logged.set_value();
  patience.join();
  EXPECT_TRUE(in_time);
  peer_->Close();
  CloseStream();
}

TEST_F(CookieTest, StreamIsLockedWhileARecordIsReadExceptForTheWaits) {
  FILE* const stream = OpenStream();
  std::vector<bool> locked_in_waits;
  std::vector<bool> locked_between;
  Hooked poll(Hooks().poll, [&](pollfd* entries, nfds_t count, int time_out) {
    locked_in_waits.push_back(IsLockedForOthers(stream));
    return Hooks().poll.Real(entries, count, time_out);
  });
  Hooked recv(Hooks().recv, [&](int descriptor, void* buffer, std::size_t, int flags) {
    locked_between.push_back(IsLockedForOthers(stream));
    return Hooks().recv.Real(descriptor, buffer, 4, flags);
  });
  peer_->Send(std::string("\x00\x10\x00\x03kvvv", 8));

  Varnix::Row received;
  RecordReader(*stream_).Read(received);

  EXPECT_THAT(locked_in_waits, ElementsAre(false, false));
  EXPECT_THAT(locked_between, ElementsAre(true, true));
  EXPECT_FALSE(IsLockedForOthers(stream)) << "after the record";
  CloseStream();
}

TEST_F(CookieTest, StreamIsLockedWhileARecordIsWrittenExceptForTheWaits) {
  FILE* const stream = OpenStream();
  std::vector<bool> locked_in_waits;
  std::vector<bool> locked_between;
  Hooked poll(Hooks().poll, [&](pollfd* entries, nfds_t count, int time_out) {
    locked_in_waits.push_back(IsLockedForOthers(stream));
    return Hooks().poll.Real(entries, count, time_out);
  });
  Hooked send(Hooks().send, [&](int descriptor, const void* bytes, std::size_t, int flags) {
    locked_between.push_back(IsLockedForOthers(stream));
    return Hooks().send.Real(descriptor, bytes, 4, flags);
  });

  WriteRecord({"k", "vvv"}, *stream_);

  EXPECT_THAT(locked_in_waits, ElementsAre(false, false));
  EXPECT_THAT(locked_between, ElementsAre(true, true));
  EXPECT_FALSE(IsLockedForOthers(stream)) << "after the record";
  CloseStream();
}

TEST_F(CookieTest, ReadErrorWithinARecordIsLoggedWithTheStreamUnlocked) {
  FILE* const stream = OpenStream();
  Hooked recv(Hooks().recv, FailWith{ECONNRESET});
  peer_->Send("x");
  std::vector<std::pair<std::string, bool>> locked_at;
  SetLogHook([&](Varnix::LogLevel, const char* tag, const char*, va_list) {
    locked_at.emplace_back(tag, IsLockedForOthers(stream));
  });

  Varnix::Row received;
  EXPECT_FALSE(RecordReader(*stream_).Read(received));

  EXPECT_EQ(locked_at, (std::vector<std::pair<std::string, bool>>{{"cook.rd.rd", false}}));
  CloseStream();
}

TEST_F(CookieTest, WhatAHookThrowsAtAReadErrorReachesTheReaderPastTheFramesOfStdio) {
  FILE* const stream = OpenStream();
  Hooked recv(Hooks().recv, FailWith{ECONNRESET});
  peer_->Send("x");
  SetLogHook([](Varnix::LogLevel, const char* tag, const char*, va_list) { throw std::runtime_error(tag); });

  Varnix::Row received;
  EXPECT_THROW(RecordReader(*stream_).Read(received), std::runtime_error);

  EXPECT_FALSE(IsLockedForOthers(stream));
  CloseStream();
}

TEST_F(CookieTest, FailedPollWithinARecordIsLoggedWithTheStreamUnlocked) {
  FILE* const stream = OpenStream();
  const auto read = [&] {
    const Hooked poll(Hooks().poll, FailWith{EINVAL});
    SetLogHook([&](Varnix::LogLevel, const char* tag, const char*, va_list) {
      fprintf(stderr, "%s %s", tag, IsLockedForOthers(stream) ? "locked" : "unlocked");
    });
    Varnix::Row received;
    RecordReader(*stream_).Read(received);
  };

  EXPECT_EXIT(read(), testing::KilledBySignal(SIGABRT), "cook.rd.poll unlocked");

  CloseStream();
}

TEST_F(CookieTest, HookThatFlushesWhenAWriteEndsTheProcessSendsNothingTwice) {
  const auto write = [&] {
    Connect();
    OpenStream();
    int sends = 0;
    Hooked send(Hooks().send, [&](int descriptor, const void* bytes, std::size_t size, int flags) -> ssize_t {
      if (++sends == 2) return FailWith{EAGAIN}();
      return Hooks().send.Real(descriptor, bytes, sends == 1 ? 4 : size, flags);
    });
    SetLogHook([this](Varnix::LogLevel, const char*, const char*, va_list) {
      fflush(nullptr);
      fprintf(stderr, "%zu of 8 bytes sent", peer_->ReceiveWaiting().size());
    });
    WriteRecord({"k", "vvv"}, *stream_);
  };

  EXPECT_EXIT(write(), testing::KilledBySignal(SIGABRT), "4 of 8 bytes sent");
}

TEST_F(CookieTest, ForkedChildSendsNothingOfWhatItsParentHasBuffered) {
  OpenStream();
  WriteRecord({"k", ""}, *stream_);  // Stays in the buffer.

  const pid_t child = fork();
  if (child == 0) {
    fflush(nullptr);
    _exit(0);
  }
  waitpid(child, nullptr, 0);

  EXPECT_EQ(peer_->ReceiveWaiting(), "");
  CloseStream();
  EXPECT_EQ(peer_->ReceiveWaiting(), std::string("\x00\x10\x00\x00k", 5));
}

TEST_F(CookieTest, ForkedChildWritesNothingIntoWhatHasGotTheNumberOfItsParentsSocket) {
  OpenStream();
  WriteRecord({"k", ""}, *stream_);  // Stays in the buffer.
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);

  const pid_t child = fork();
  if (child == 0) {
    dup2(ends[1], stream_->Socket());
    for (int number = 0; number < 256; ++number) {
      if (number != ends[1] && fcntl(number, F_GETFD) < 0) dup2(ends[1], number);
    }
    fflush(nullptr);
    _exit(0);
  }
  waitpid(child, nullptr, 0);

  close(ends[1]);
  char byte;
  EXPECT_EQ(read(ends[0], &byte, 1), 0);
  close(ends[0]);
}

TEST_F(CookieTest, ProgramThatFlushesAllTheTimeCorruptsNoSendingStream) {
  ArriveWhileTheProgramFlushes(RowsOfManySizes(), [this](const std::vector<Varnix::Row>& rows) {
    for (const Varnix::Row& row : rows) EXPECT_TRUE(WriteRecord(row, *stream_));
  });
}

TEST_F(CookieTest, ProgramThatFlushesAllTheTimeCorruptsNoStreamOfBufferedRows) {
  ArriveWhileTheProgramFlushes(RowsOfManySizes(), [this](const std::vector<Varnix::Row>& rows) {
    for (std::size_t i = 0; i < rows.size(); ++i) {
      EXPECT_TRUE(BufferRecord(rows[i], *stream_));
      EXPECT_TRUE(i % 7 != 0 || FlushRecords(*stream_));
    }
    EXPECT_TRUE(FlushRecords(*stream_));
  });
}

TEST_F(CookieTest, ProgramThatFlushesAllTheTimeCorruptsNoStreamOfRowsWithEmptyValues) {
  std::vector<Varnix::Row> all;
  for (int i = 0; i < 5000; ++i) all.emplace_back("key number " + std::to_string(i), "");
  all.emplace_back("last", "v");

  ArriveWhileTheProgramFlushes(all, [this](const std::vector<Varnix::Row>& rows) {
    for (const Varnix::Row& row : rows) EXPECT_EQ(WriteRecord(row, *stream_), !row.second.empty());
  });
}

TEST_F(CookieTest, ProgramThatFlushesAllTheTimeCorruptsNoReceivingStream) {
  OpenStream();
  const std::vector<Varnix::Row> rows = RowsOfManySizes();
  std::thread peer([&] { peer_->Send(BytesOf(rows)); });
  std::vector<Varnix::Row> received;

  {
    ProgramThatFlushes program;
    Varnix::Row row;
    while (received.size() < rows.size() && RecordReader(*stream_).Read(row)) received.push_back(row);
    while (program.Flushes() == 0) std::this_thread::yield();
  }

  peer.join();
  EXPECT_TRUE(received == rows) << "rows differ";
  CloseStream();
}
