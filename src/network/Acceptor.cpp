#include "network/Acceptor.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "logging/Log.h"
#include "network/Member.h"
#include "network/PeerPlace.h"
#include "network/SystemCalls.h"

using Varnix::LogLevel;

namespace {

constexpr std::chrono::milliseconds kPauseBetweenRefusals(100);

bool IsOutOfResources(int error) { return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM; }

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
  Log(LogLevel::Error, "tblsvr.acc.acc", "TableServer: Accept::accept error %d", error);
  // The connection still waits, and accepting it would fail at once again: leave the processor to others for a while.
  if (IsOutOfResources(error)) Pause(kPauseBetweenRefusals);
}

void Acceptor::Serve(FileDescriptor socket, unsigned address) {
  const int error = incoming_(socket, address);
  if (error == 0) return;
  Log(LogLevel::Error, "tblsvr.acc.thread", "TableServer: IncomingConnection::thread error %d", error);
  socket.Close();
  Pause(kPauseBetweenRefusals);  // A flood of connections must not become a flood of these lines.
}

void Acceptor::Pause(std::chrono::milliseconds length) const {
  pollfd done = {member_.done_descriptor, POLLIN, 0};
  poll(&done, 1, static_cast<int>(length.count()));
}
