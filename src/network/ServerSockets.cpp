// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "network/ServerSockets.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "network/PeerPlace.h"
#include "network/SystemCalls.h"

namespace {

constexpr int kBacklog = 10;

bool Bind(const FileDescriptor& socket, unsigned short port) {
  const sockaddr_in address = ToSocketAddress({INADDR_ANY, port});
  return bind(socket.Get(), Generic(address), sizeof address) == 0;
}

bool SwitchOn(const FileDescriptor& socket, int option) {
  const int on = 1;
  return setsockopt(socket.Get(), SOL_SOCKET, option, &on, sizeof on) == 0;
}

// Two closed ends, with errno, on failure.
Pipe MakePipe() {
  int ends[] = {-1, -1};
  const NoFork no_fork;
  if (pipe2(ends, O_CLOEXEC) < 0) return {};
  return {FileDescriptor(no_fork, ends[0]), FileDescriptor(no_fork, ends[1])};
}

Pipe OpenPipe(const char* tag, const char* format) {
  Pipe pipe = MakePipe();
  // Not in MakePipe(): the log hook may fork, and would wait for NoFork.
  if (!pipe.read_end.IsOpen()) LogErrnoAndAbort(tag, format);
  return pipe;
}

}  // namespace

FileDescriptor OpenSocket(int type) {
  const NoFork no_fork;
  return FileDescriptor(no_fork, socket(AF_INET, type | SOCK_CLOEXEC, 0));
}

FileDescriptor OpenListeningSocket(unsigned short& port) {
  FileDescriptor listener = OpenSocket(SOCK_STREAM);
  if (!listener.IsOpen()) LogErrnoAndAbort("tblsvr.lstn.sock", "TableServer: listen socket error %d");
  if (!Bind(listener, 0)) LogErrnoAndAbort("tblsvr.lstn.bind", "TableServer: listener bind error %d");
  sockaddr_in address{};
  socklen_t size = sizeof address;
  if (getsockname(listener.Get(), Generic(address), &size) < 0) {
    LogErrnoAndAbort("tblsvr.lstn.name", "TableServer: getsockname error %d");
  }
  if (listen(listener.Get(), kBacklog) < 0) LogErrnoAndAbort("tblsvr.lstn.lstn", "TableServer: listen error %d");
  port = ToPeerPlace(address).port;
  return listener;
}

FileDescriptor OpenDiscoverySocket() {
  FileDescriptor discoverer = OpenSocket(SOCK_DGRAM);
  if (!discoverer.IsOpen()) LogErrnoAndAbort("tblsvr.dscv.sock", "TableServer: discover socket error %d");
  if (!SwitchOn(discoverer, SO_BROADCAST)) {
    LogErrnoAndAbort("tblsvr.dscv.opt.bcast", "TableServer: setsockopt broadcast error %d");
  }
  // Every server of every process on this machine binds the same port, and each gets the broadcasts.
  if (!SwitchOn(discoverer, SO_REUSEADDR)) {
    LogErrnoAndAbort("tblsvr.dscv.opt.reuse", "TableServer: setsockopt reuseaddr error %d");
  }
  if (!Bind(discoverer, kDiscoveryPort)) LogErrnoAndAbort("tblsvr.dscv.bind", "TableServer: discover bind error %d");
  return discoverer;
}

Pipe OpenDonePipe() { return OpenPipe("tblsvr.pipe.done", "TableServer: done pipe error %d"); }

Pipe OpenWakePipe() { return OpenPipe("tblsvr.pipe.wake", "TableServer: wake pipe error %d"); }
