#include "logging/Log.h"

#include <cstdio>

#include "threads/Mutex.h"

namespace {

Mutex log_lock;

// Never destroyed, only emptied at exit: tables in the host's static objects, and threads that outlive main, still log.
LogHook& Hook() VARNIX_REQUIRES(log_lock) {
  static LogHook& hook = *new LogHook(DefaultLogger);
  return hook;
}

// Destroys the hook, with all that it captured, after every other exit-time destructor of the library.
struct EmptyHookAtExit {
  ~EmptyHookAtExit() { SetLogHook({}); }
} empty_hook_at_exit;

}  // namespace

void Log(Varnix::LogLevel level, const char* tag, const char* format, ...) {
  // Ends the argument list also when the hook throws.
  struct Arguments {
    va_list list;
    ~Arguments() { va_end(list); }
  } arguments;
  va_start(arguments.list, format);
  MutexLock lock(log_lock);
  if (LogHook& hook = Hook()) hook(level, tag, format, arguments.list);
}

void DefaultLogger(Varnix::LogLevel level, const char* tag, const char* format, va_list args) {
  char message[1024];
  char line[1200];
  std::vsnprintf(message, sizeof message, format, args);
  std::snprintf(line, sizeof line, "%s: %s", tag, message);
  if (level == Varnix::LogLevel::Error) std::perror(line);
}

void SetLogHook(const LogHook& hook) {
  MutexLock lock(log_lock);
  LogHook previous = hook;
  previous.swap(Hook());
  // `previous` goes before `lock`: no call of the old hook can be running, and none is left when this returns.
}
