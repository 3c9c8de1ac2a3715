// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// What the acceptor does when the system gives it no connection.
#include <gtest/gtest.h>

#include <cerrno>

#include "net/Acceptor.h"
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

}  // namespace
