// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// One thread waits on a key of one table and on every row of another, and gives up at a deadline.
//
//   $ wait_on_several
//   speed is now 42
//   alarm: door is open
//   nothing for 2 seconds: giving up

#include <Varnix.h>

#include <chrono>
#include <iostream>
#include <memory>
#include <thread>

int main() {
  // Tables of this process alone. Those of Varnix::MakeSharedTable() are watched in the same way.
  const std::shared_ptr<Varnix::Table> motor = Varnix::MakeTable("motor");
  const std::shared_ptr<Varnix::Table> alarms = Varnix::MakeTable("alarms");
  const std::shared_ptr<Varnix::Watcher> speed = motor->Watch("speed");
  const std::shared_ptr<Varnix::Watcher> any_alarm = alarms->WatchAll();
  const std::shared_ptr<Varnix::WatcherSet> changes = Varnix::MakeWatcherSet({speed, any_alarm});

  std::thread machine([=] {
    motor->Set({"temperature", "81"});  // Nobody watches this key.
    motor->Set({"speed", "42"});
    std::this_thread::sleep_for(std::chrono::seconds(1));
    motor->Set({"speed", "42"});  // The value that it has already: not a change.
    alarms->Set({"door", "open"});
  });

  for (;;) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    const auto change = changes->WaitUntil(deadline);
    const Varnix::Row& row = change.first;
    if (change.second == nullptr) break;  // The deadline came first.
    if (change.second == speed) std::cout << "speed is now " << row.second << std::endl;
    if (change.second == any_alarm) std::cout << "alarm: " << row.first << " is " << row.second << std::endl;
  }
  std::cout << "nothing for 2 seconds: giving up" << std::endl;
  machine.join();
}
