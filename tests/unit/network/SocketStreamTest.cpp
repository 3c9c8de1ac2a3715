// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <gmock/gmock.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "ConnectionTest.h"
#include "network/SocketStream.h"
#include "support/SystemCallHooks.h"

namespace {

using testing::IsEmpty;

class SocketStreamTest : public ConnectionTest {};

}  // namespace

TEST_F(SocketStreamTest, StreamIsMadeInModeRPlusOfReadAndWriteAlone) {
  void* made_of = nullptr;
  std::string made_in;
  cookie_io_functions_t made_with{};
  Hooked fopencookie(Hooks().fopencookie, [&](void* cookie, const char* mode, cookie_io_functions_t functions) {
    made_of = cookie;
    made_in = mode;
    made_with = functions;
    return Hooks().fopencookie.Real(cookie, mode, functions);
  });

  EXPECT_TRUE(stream_->Open());

  EXPECT_EQ(made_of, &GetCookie());
  EXPECT_EQ(made_in, "r+");
  EXPECT_EQ(made_with.read, &Cookie::Read);
  EXPECT_EQ(made_with.write, &Cookie::Write);
  EXPECT_EQ(made_with.seek, nullptr);
  EXPECT_EQ(made_with.close, nullptr);
}

TEST_F(SocketStreamTest, StreamThatCannotBeMadeIsToldOf) {
  Hooked fopencookie(Hooks().fopencookie, [](void*, const char*, cookie_io_functions_t) -> FILE* {
    errno = ENOMEM;
    return nullptr;
  });

  EXPECT_FALSE(stream_->Open());

  EXPECT_EQ(errno, ENOMEM);
  EXPECT_THAT(log_.Lines(), IsEmpty()) << "the caller tells";
}

TEST_F(SocketStreamTest, StreamKeepsBytesInItsBufferUntilItIsFlushed) {
  FILE* const stream = OpenStream();

  fwrite("abc", 3, 1, stream);

  EXPECT_EQ(peer_->ReceiveWaiting(), "");
  EXPECT_EQ(fflush(stream), 0);
  EXPECT_EQ(peer_->ReceiveWaiting(), "abc");
  CloseStream();
}

TEST_F(SocketStreamTest, StreamReadsAndWritesTheSameConnection) {
  FILE* const stream = OpenStream();
  peer_->Send("question");

  char question[8];
  EXPECT_EQ(fread(question, sizeof question, 1, stream), 1U);
  EXPECT_EQ(fwrite("answer", 6, 1, stream), 1U);
  EXPECT_EQ(fflush(stream), 0);

  EXPECT_EQ(std::string(question, sizeof question), "question");
  EXPECT_EQ(peer_->Receive(6), "answer");
  CloseStream();
}

TEST_F(SocketStreamTest, StreamIsGivenBackToStdio) {
  static int closed;
  closed = 0;
  Hooked fopencookie(Hooks().fopencookie, [](void* cookie, const char* mode, cookie_io_functions_t functions) {
    functions.close = [](void*) {
      ++closed;
      return 0;
    };
    return Hooks().fopencookie.Real(cookie, mode, functions);
  });
  OpenStream();

  CloseStream();

  EXPECT_EQ(closed, 1);
}

TEST_F(SocketStreamTest, StreamIsClosedBeforeItsSocketAndTheDonePipeStaysOpen) {
  FILE* const stream = OpenStream();
  fwrite("abc", 3, 1, stream);

  CloseStream();

  EXPECT_EQ(peer_->Receive(4), "abc") << "and then the end";
  SignalDone();
  char byte = 0;
  EXPECT_EQ(read(done_[0], &byte, 1), 1);
}
