// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>

// With the first thread the thread sanitizer starts one of its own, which stays. Who counts threads lets it do so
// first; and waits, because one that has been joined is listed a moment longer.
inline void StartAndEndAThread() {
  pid_t thread = 0;
  std::thread([&] { thread = gettid(); }).join();
  while (std::filesystem::exists("/proc/self/task/" + std::to_string(thread))) std::this_thread::yield();
}
