// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <atomic>
#include <cerrno>
#include <memory>
#include <system_error>

#include "support/SystemCallHooks.h"

// For a hook: a call that fails with `error`.
struct FailWith {
  template <class... Arguments>
  int operator()(Arguments...) const {
    errno = error;
    return -1;
  }

  int error;
};

// For a hook: fails the first time, and is the real call from then on.
template <class Result, class... Arguments>
typename Hook<Result(Arguments...)>::Function FailOnce(Hook<Result(Arguments...)>& hook, int error) {
  return [&hook, error, failed = std::make_shared<std::atomic<bool>>(false)](Arguments... arguments) -> Result {
    if (failed->exchange(true)) return hook.Real(arguments...);
    errno = error;
    return -1;
  };
}

// For a hook of the start of a thread: there is none to be had.
inline void ThrowNoThread() { throw std::system_error(EAGAIN, std::generic_category()); }
