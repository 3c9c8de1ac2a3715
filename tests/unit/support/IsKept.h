// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <chrono>
#include <future>

// Waits until the promise is kept; false after ten seconds, which only bound a failing run. Tests drive the steady
// clock, so this looks at the other.
inline bool IsKept(std::promise<void>& promise) {
  return promise.get_future().wait_until(std::chrono::system_clock::now() + std::chrono::seconds(10)) ==
         std::future_status::ready;
}
