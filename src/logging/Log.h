// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <Varnix.h>

#include <cstdarg>
#include <functional>

using LogHook = std::function<void(Varnix::LogLevel, const char*, const char*, va_list)>;

// Hands a message, unexpanded, to the process-wide log hook. An empty hook drops it. All messages go through here.
//
// Threads: any. The hook runs under the log lock, so its calls never overlap. Below that lock there is only that of the
// descriptors.
// Errors: std::system_error when the lock fails, and what the hook throws. The lock is released then.
void Log(Varnix::LogLevel level, const char* tag, const char* format, ...) __attribute__((format(printf, 3, 4)));

// The first hook: prints errors to standard error by perror() and drops everything else.
void DefaultLogger(Varnix::LogLevel level, const char* tag, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));

// Replaces the hook by a copy. The previous hook is destroyed when this returns.
void SetLogHook(const LogHook& hook);

// Whether the program gets messages that are less serious than errors, and may be slow with each.
bool HasHookOfTheProgram();

// For fork(): the child must not get a log lock that another thread holds.
void LockLog();
void UnlockLog();
// Whether this thread is running the hook. Then it holds the log lock, and maybe others.
bool IsInLogHook();
