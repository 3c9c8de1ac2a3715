// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <functional>
#include <thread>
#include <utility>

#include "support/SystemCallHooks.h"

// Sets a hook for the calls of the thread that makes this object, for the life of the object; all others make the real
// call.
template <class Signature>
class HookedHere {
 public:
  HookedHere(Hook<Signature>& hook, typename Hook<Signature>::Function function)
      : hooked_(hook, OnlyHere(hook, std::move(function))) {}

 private:
  template <class Result, class... Arguments>
  static std::function<Result(Arguments...)> OnlyHere(Hook<Result(Arguments...)>& hook,
                                                      std::function<Result(Arguments...)> function) {
    return [&hook, function = std::move(function), here = std::this_thread::get_id()](Arguments... arguments) {
      return std::this_thread::get_id() == here ? function(arguments...) : hook.Real(arguments...);
    };
  }

  Hooked<Signature> hooked_;
};
