// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Waits with a deadline near and far, and tells how wide a time is for this program.
#include <Varnix.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

bool NearDeadlineIsKept() {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("silent");
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(100);
  return !Varnix::MakeWatcherSet({table->WatchAll()})->WaitUntil(deadline).second && Clock::now() >= deadline;
}

// The row comes late: who takes the far deadline for a past one has returned without it.
bool RowComesBefore(Clock::time_point far) {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("late");
  const std::shared_ptr<Varnix::Watcher> watcher = table->WatchAll();
  bool near_is_kept = false;
  std::thread setter([&] {
    near_is_kept = NearDeadlineIsKept();
    table->Set({"k", "v"});
  });
  const Varnix::Row row = Varnix::MakeWatcherSet({watcher})->WaitUntil(far).first;
  setter.join();
  return near_is_kept && row == Varnix::Row("k", "v");
}

}  // namespace

int main() {
  const bool met =
      RowComesBefore(Clock::now() + std::chrono::hours(24 * 365 * 100)) && RowComesBefore(Clock::time_point::max());
  std::printf("%zu-byte times: %s\n", sizeof(std::time_t), met ? "deadlines are met" : "deadlines are not met");
  return 0;
}
