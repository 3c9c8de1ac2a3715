// Hands what the library logs to syslog, with the tag in front: journalctl -t press-2 then shows, for instance,
//
//   tblcmbn.sharing.svr: DB(0x55d0c8a02f10) SetSharing -> server=0x55d0c8a036c0

#include <Varnix.h>
#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <memory>

namespace {

// Runs under locks of the library: it must be quick, and must not call the library. It uses no objects of its own, so
// it also works while the process exits.
void LogToSyslog(Varnix::LogLevel level, const char* tag, const char* format, va_list arguments) {
  char message[512];
  std::vsnprintf(message, sizeof message, format, arguments);
  syslog(static_cast<int>(level), "%s: %s", tag, message);  // The levels are numbered as syslog's are.
}

}  // namespace

int main() {
  openlog("press-2", LOG_PID, LOG_DAEMON);
  setlogmask(LOG_UPTO(LOG_DEBUG));  // LOG_INFO leaves out what goes well.
  Varnix::SetLoggingFunction(LogToSyslog);

  const std::shared_ptr<Varnix::Table> status = Varnix::MakeSharedTable("plant", "status");
  status->Set({"temperature", "81"});
}
