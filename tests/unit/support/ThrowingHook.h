// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <stdexcept>

#include "logging/Log.h"

// A log hook that throws HookError at the n-th message, counted from 1, and takes all others without a word.
struct HookError : std::runtime_error {
  HookError() : std::runtime_error("the log is full") {}
};

class ThrowingHook {
 public:
  explicit ThrowingHook(int n) : left_(n) {
    SetLogHook([this](Varnix::LogLevel, const char*, const char*, va_list) {
      if (--left_ == 0) throw HookError();
    });
  }
  ~ThrowingHook() { SetLogHook(DefaultLogger); }
  ThrowingHook(const ThrowingHook&) = delete;
  ThrowingHook& operator=(const ThrowingHook&) = delete;

  bool HasThrown() const { return left_ <= 0; }

 private:
  int left_;
};
