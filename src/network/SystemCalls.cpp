#include "network/SystemCalls.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdlib>

#include "logging/Log.h"

void LogErrnoAndAbort(const char* tag, const char* format) {
  try {
    Log(Varnix::LogLevel::Error, tag, format, errno);
  } catch (...) {
    // There is no going on, whatever the hook thinks of it.
  }
  std::abort();
}

void CloseOnExec(int descriptor) { fcntl(descriptor, F_SETFD, FD_CLOEXEC); }
