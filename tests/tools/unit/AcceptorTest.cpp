// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// What the acceptor does when the system gives it no connection, and when it is closed.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

#include "net/Acceptor.h"
#include "net/Sockets.h"
#include "support/FailWith.h"
#include "support/SystemCallHooks.h"

namespace {

struct Nobody : Acceptor::Owner {
  void OnAccepted(FileDescriptor, std::uint32_t) override {}
};

// Whether it waits for connections after it was told this error number.
bool WaitsAfter(int error) {
  Nobody nobody;
  Loop loop;
  Acceptor acceptor(loop, nobody);
  const Hooked accepting(Hooks().accept4, FailWith{error});
  acceptor.OnReady(POLLIN);
  const bool waits = acceptor.Awaited().fd >= 0;
  EXPECT_EQ(waits, acceptor.Deadline() == TimePoint::max());
  acceptor.OnDeadline();
  EXPECT_GE(acceptor.Awaited().fd, 0);
  return waits;
}

TEST(Acceptor, PausesWhileTheSystemLacksWhatAConnectionNeeds) {
  for (const int error : {EMFILE, ENFILE, ENOBUFS, ENOMEM}) EXPECT_FALSE(WaitsAfter(error)) << error;
}

TEST(Acceptor, WaitsForTheNextConnectionWhenThereIsNone) {
  for (const int error : {EAGAIN, EINTR, ECONNABORTED}) EXPECT_TRUE(WaitsAfter(error)) << error;
}

// Waits until there is something to read; a time-out only bounds a failing run.
bool IsReadable(int descriptor) {
  pollfd awaited{descriptor, POLLIN, 0};
  return poll(&awaited, 1, 60'000) == 1;
}

TEST(Acceptor, LetsThoseWhoWaitGoInOrderWhenItIsClosed) {
  Nobody nobody;
  Loop loop;
  Acceptor acceptor(loop, nobody);
  int error = 0;
  const FileDescriptor visitor = BeginConnecting({INADDR_LOOPBACK, acceptor.Port()}, error);
  ASSERT_TRUE(IsReadable(acceptor.Awaited().fd));

  acceptor.Close();

  char byte = 0;
  ASSERT_TRUE(IsReadable(visitor.Get()));
  EXPECT_EQ(recv(visitor.Get(), &byte, 1, 0), 0);  // The end of the stream, and no error.
}

}  // namespace
