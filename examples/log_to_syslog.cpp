// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Hands what the library logs to syslog, with the tag in front: journalctl -t press-2 then shows, for instance,
//
//   tblcmbn.sharing.svr: DB(0x55d0c8a02f10) SetSharing -> server=0x55d0c8a036c0
//
// The hook runs inside most calls of the library, and while it waits, they all wait. So the hook only sends the line
// through a socket, and a thread of the program waits for syslog. A line that the socket has no room for is dropped.

#include <Varnix.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <thread>

namespace {

int ends[2];  // A line that is sent into the first comes out of the second in one piece.
std::atomic<unsigned> dropped(0);

// Must not call the library. It uses no objects that are ever destroyed, so it also works while the process exits.
void SendLine(Varnix::LogLevel level, const char* tag, const char* format, va_list arguments) {
  if (level > Varnix::LogLevel::Debug) return;  // Info leaves out what goes well, and is cheaper.
  char text[400], line[512];
  std::vsnprintf(text, sizeof text, format, arguments);
  std::snprintf(line, sizeof line, "%d%s: %s", static_cast<int>(level), tag, text);
  if (send(ends[0], line, sizeof line, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) ++dropped;
}

void HandLinesToSyslog() {
  char line[512];
  while (recv(ends[1], line, sizeof line, 0) > 0) {
    syslog(line[0] - '0', "%s", line + 1);  // The levels are numbered as syslog's are.
    if (const unsigned count = dropped.exchange(0)) syslog(LOG_WARNING, "%u lines were dropped", count);
  }
}

}  // namespace

int main() {
  openlog("press-2", LOG_PID, LOG_DAEMON);
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return 1;
  std::thread logger(HandLinesToSyslog);
  Varnix::SetLoggingFunction(SendLine);

  const std::shared_ptr<Varnix::Table> status = Varnix::MakeSharedTable("plant", "status");
  status->Set({"temperature", "81"});

  Varnix::SetLoggingFunction(nullptr);  // When this returns, no line is being sent, and none will be.
  close(ends[0]);
  logger.join();
}
