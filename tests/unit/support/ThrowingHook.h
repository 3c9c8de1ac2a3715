// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <stdexcept>
#include <thread>

#include "logging/Log.h"

// A log hook that throws HookError at the n-th message of this thread, counted from 1, and takes all others without a
// word. One that throws on a thread of the library ends the process.
struct HookError : std::runtime_error {
  HookError() : std::runtime_error("the log is full") {}
};

class ThrowingHook {
 public:
  explicit ThrowingHook(int n) : left_(n) {
    SetLogHook([this](Varnix::LogLevel, const char*, const char*, va_list) {
      if (std::this_thread::get_id() == thread_ && --left_ == 0) throw HookError();
    });
  }
  ~ThrowingHook() { SetLogHook(DefaultLogger); }
  ThrowingHook(const ThrowingHook&) = delete;
  ThrowingHook& operator=(const ThrowingHook&) = delete;

  bool HasThrown() const { return left_ <= 0; }

 private:
  const std::thread::id thread_ = std::this_thread::get_id();
  int left_;
};
