// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <Varnix.h>
#include <arpa/inet.h>

#include <iostream>

// Sets one row, and prints what every member of the group has set or sets: share_a_table NAME VALUE
int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const std::string name = argv[1], value = argv[2];

  std::shared_ptr<Varnix::Table> table = Varnix::MakeSharedTable("plant", "status");
  Varnix::SetSharingGroup("plant", "line-4", "press", name, inet_addr("127.255.255.255"));  // Stays on this device.
  std::shared_ptr<Varnix::WatcherSet> changes = Varnix::MakeWatcherSet({table->WatchAll()});

  table->Set({name, value});
  for (;;) {
    const Varnix::Row row = changes->Wait().first;
    std::cout << row.first << " is " << row.second << std::endl;
  }
}
