// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Ends while other threads call every exported function and method, again and again, or sit in a wait.
#include <atomic>
#include <thread>

#include "Leave.h"
#include "Statics.h"

namespace {

constexpr int kThreads = 8;
constexpr int kDatabases = 4;  // Each is used by two of the threads.

std::atomic<int>& Warm() {
  static std::atomic<int>& warm = *new std::atomic<int>(0);  // The threads outlive main and all static objects.
  return warm;
}

[[noreturn]] void CallForEver(int number) {
  const std::string database = "database " + std::to_string(number % kDatabases);
  CallEverything(database);
  for (++Warm();;) CallEverything(database);
}

[[noreturn]] void WaitForEver(const std::shared_ptr<Varnix::Watcher>& watcher) {
  const std::shared_ptr<Varnix::WatcherSet> set = Varnix::MakeWatcherSet({watcher});
  for (++Warm();;) set->Wait();
}

}  // namespace

int main(int, char** argv) {
  std::thread(WaitForEver, Varnix::MakeTable("nobody sets it")->Watch("key")).detach();
  const std::shared_ptr<Varnix::Table> busy = Varnix::MakeSharedTable("database 0", "busy");
  std::thread(WaitForEver, busy->WatchAll()).detach();
  for (int number = 0; number < kThreads; ++number) std::thread(CallForEver, number).detach();
  for (unsigned long count = 0; Warm() < kThreads + 2; ++count) busy->Set({"key", std::to_string(count)});
  std::thread([busy] {
    for (unsigned long count = 0;; ++count) busy->Set({"key", std::to_string(count)});
  }).detach();
  return Leave(argv[1]);
}
