#include "network/SystemCalls.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdlib>

#include "logging/Log.h"

void LogErrnoAndAbort(const char* tag, const char* format) {
  Log(Varnix::LogLevel::Error, tag, format, errno);
  std::abort();
}

void CloseOnExec(int descriptor) { fcntl(descriptor, F_SETFD, FD_CLOEXEC); }
