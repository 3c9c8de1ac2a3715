#pragma once

#include <Varnix.h>

#include <cstdarg>
#include <functional>

using LogHook = std::function<void(Varnix::LogLevel, const char*, const char*, va_list)>;

// The one way out for diagnostics: hands the message, unexpanded, to the process-wide log hook. An empty hook drops it.
//
// Threads: any. The log lock is the innermost of all and the hook runs under it, so hook calls never overlap.
// Errors: std::system_error when the lock fails; what the hook throws passes on, with the lock released.
void Log(Varnix::LogLevel level, const char* tag, const char* format, ...) __attribute__((format(printf, 3, 4)));

// What the hook holds at start: errors go to standard error by perror, everything else is dropped.
void DefaultLogger(Varnix::LogLevel level, const char* tag, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));

// Replaces the hook by a copy. The previous hook is gone when this returns.
void SetLogHook(const LogHook& hook);

// Whether the host gets the messages below level Error, and may take its time for each.
bool HasHookOfTheHost();

// For fork(), which must not copy a log lock that another thread holds.
void LockLog();
void UnlockLog();
// Whether this thread is running the hook, and so holds the log lock and maybe others.
bool IsInLogHook();
