// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "logging/Log.h"

#include <atomic>
#include <cstdio>
#include <new>
#include <thread>

#include "threads/Mutex.h"

namespace {

Mutex log_lock;
// The thread that runs the hook now. Threads look for their own id alone, so relaxed accesses suffice.
std::atomic<std::thread::id> hook_thread;
// The hook is the first one, or none. Then messages other than errors are dropped without the lock: a thread that
// prints an error to a slow device keeps no other from setting rows.
std::atomic<bool> only_errors_are_heard{true};

// Emptied at exit and never destroyed: static objects of the program, and threads that outlive main, still log.
LogHook& Hook() VARNIX_REQUIRES(log_lock) {
  alignas(LogHook) static unsigned char place[sizeof(LogHook)];  // The first message allocates nothing either.
  static LogHook& hook = *new (place) LogHook(DefaultLogger);
  return hook;
}

// Destroys what the hook has captured, after every other exit-time destructor of the library.
struct EmptyHookAtExit {
  ~EmptyHookAtExit() { SetLogHook({}); }
} empty_hook_at_exit;

void CallHook(Varnix::LogLevel level, const char* tag, const char* format, va_list arguments) {
  struct HookThread {
    HookThread() { hook_thread.store(std::this_thread::get_id(), std::memory_order_relaxed); }
    ~HookThread() { hook_thread.store(std::thread::id(), std::memory_order_relaxed); }
  };
  MutexLock lock(log_lock);
  const LogHook& hook = Hook();
  if (!hook) return;
  const HookThread running;
  hook(level, tag, format, arguments);
}

}  // namespace

void Log(Varnix::LogLevel level, const char* tag, const char* format, ...) {
  if (level != Varnix::LogLevel::Error && only_errors_are_heard) return;
  va_list arguments;
  va_start(arguments, format);
  try {
    CallHook(level, tag, format, arguments);
  } catch (...) {
    va_end(arguments);
    throw;
  }
  va_end(arguments);
}

void DefaultLogger(Varnix::LogLevel level, const char* tag, const char* format, va_list args) {
  if (level != Varnix::LogLevel::Error) return;
  char message[1024];
  char line[1200];
  std::vsnprintf(message, sizeof message, format, args);
  std::snprintf(line, sizeof line, "%s: %s", tag, message);
  std::perror(line);
}

void SetLogHook(const LogHook& hook) {
  const auto* const function = hook.target<decltype(&DefaultLogger)>();
  MutexLock lock(log_lock);
  LogHook previous = hook;
  previous.swap(Hook());
  only_errors_are_heard = !hook || (function != nullptr && *function == &DefaultLogger);
  // `previous` is destroyed before `lock` is released: no call of the old hook runs then, and none will.
}

void LockLog() VARNIX_NO_LOCK_ANALYSIS { log_lock.lock(); }

void UnlockLog() VARNIX_NO_LOCK_ANALYSIS { log_lock.unlock(); }

bool HasHookOfTheProgram() { return !only_errors_are_heard; }

bool IsInLogHook() { return hook_thread.load(std::memory_order_relaxed) == std::this_thread::get_id(); }
