// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "network/Acceptor.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "logging/Log.h"
#include "network/Member.h"
#include "network/PeerPlace.h"
#include "network/PeerThreads.h"
#include "network/SystemCalls.h"

using Varnix::LogLevel;

namespace {

constexpr std::chrono::milliseconds kPauseAfterFailure(100);
// Where many members meet, short connections come in bursts: a thread mostly ends within milliseconds.
constexpr std::chrono::milliseconds kPauseBetweenTries(10);
constexpr int kTries = 10;

// While there are no resources, or when somebody else has shut the listener down.
bool WouldFailAgainAtOnce(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM || error == EINVAL;
}

}  // namespace

Acceptor::Acceptor(const Member& member, int listener, Incoming incoming)
    : member_(member), listener_(listener), incoming_(std::move(incoming)) {}

void Acceptor::Run() {
  pollfd entries[] = {{member_.done_descriptor, POLLIN, 0}, {listener_, POLLIN, 0}};
  for (;;) {
    if (PollAgainAfterSignals(entries, 2, -1) < 0) {
      LogErrnoAndAbort("tblsvr.acc.poll", "TableServer: Accept::poll error %d");
    }
    if (entries[0].revents != 0) return;
    if (entries[1].revents != 0) AcceptConnection();
  }
}

void Acceptor::AcceptConnection() {
  sockaddr_in peer{};
  socklen_t size = sizeof peer;
  FileDescriptor socket = [&] {
    const NoFork no_fork;
    return FileDescriptor(no_fork, accept4(listener_, Generic(peer), &size, SOCK_CLOEXEC));
  }();
  if (socket.IsOpen()) {
    Serve(std::move(socket), ToPeerPlace(peer).address);
    return;
  }
  const int error = errno;
  // The stop shuts the listener down.
  if (error == EINVAL && StopsWithin(std::chrono::milliseconds(0))) return;
  errno = error;  // The first log hook prints it, too.
  Log(LogLevel::Error, "tblsvr.acc.acc", "TableServer: Accept::accept error %d", error);
  if (WouldFailAgainAtOnce(error)) StopsWithin(kPauseAfterFailure);  // Leave the processor to others for a while.
}

void Acceptor::Serve(FileDescriptor socket, unsigned address) {
  int error = incoming_(socket, address);
  for (int tries = 1; error != 0 && tries < kTries && !StopsWithin(kPauseBetweenTries); ++tries) {
    error = incoming_(socket, address);
  }
  if (!PeerThreads::NoteSenderResult(error)) return;
  errno = error;  // The first log hook prints it, too.
  Log(LogLevel::Error, "tblsvr.acc.thread", "TableServer: IncomingConnection::thread error %d", error);
}

bool Acceptor::StopsWithin(std::chrono::milliseconds time) const {
  return PollForInput(member_.done_descriptor, time) == 1;
}
