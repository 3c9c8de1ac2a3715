#include "network/ServerSockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "network/Discovery.h"
#include "network/SystemCalls.h"

namespace {

constexpr int kBacklog = 10;

bool Bind(int descriptor, unsigned short port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  return bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

bool SwitchOn(int descriptor, int option) {
  const int on = 1;
  return setsockopt(descriptor, SOL_SOCKET, option, &on, sizeof on) == 0;
}

Pipe OpenPipe(const char* tag, const char* format) {
  int ends[2];
  if (pipe(ends) < 0) LogErrnoAndAbort(tag, format);
  CloseOnExec(ends[0]);
  CloseOnExec(ends[1]);
  return {ends[0], ends[1]};
}

}  // namespace

int OpenListeningSocket(unsigned short& port) {
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  if (listener < 0) LogErrnoAndAbort("tblsvr.lstn.sock", "TableServer: listen socket error %d");
  CloseOnExec(listener);
  if (!Bind(listener, 0)) LogErrnoAndAbort("tblsvr.lstn.bind", "TableServer: listener bind error %d");
  sockaddr_in address{};
  socklen_t size = sizeof address;
  if (getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) < 0) {
    LogErrnoAndAbort("tblsvr.lstn.name", "TableServer: getsockname error %d");
  }
  if (listen(listener, kBacklog) < 0) LogErrnoAndAbort("tblsvr.lstn.lstn", "TableServer: listen error %d");
  port = ntohs(address.sin_port);
  return listener;
}

int OpenDiscoverySocket() {
  const int discoverer = socket(AF_INET, SOCK_DGRAM, 0);
  if (discoverer < 0) LogErrnoAndAbort("tblsvr.dscv.sock", "TableServer: discover socket error %d");
  CloseOnExec(discoverer);
  if (!SwitchOn(discoverer, SO_BROADCAST)) {
    LogErrnoAndAbort("tblsvr.dscv.opt.bcast", "TableServer: setsockopt broadcast error %d");
  }
  // Every server of every process on this host binds the same port, and each gets the broadcasts.
  if (!SwitchOn(discoverer, SO_REUSEADDR)) {
    LogErrnoAndAbort("tblsvr.dscv.opt.reuse", "TableServer: setsockopt reuseaddr error %d");
  }
  if (!Bind(discoverer, kDiscoveryPort)) LogErrnoAndAbort("tblsvr.dscv.bind", "TableServer: discover bind error %d");
  return discoverer;
}

Pipe OpenDonePipe() { return OpenPipe("tblsvr.pipe.done", "TableServer: done pipe error %d"); }

Pipe OpenWakePipe() { return OpenPipe("tblsvr.pipe.wake", "TableServer: wake pipe error %d"); }
