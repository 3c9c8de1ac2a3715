// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Ends while streams to and from peers are alive. Its arguments: the way to end, the group, its name, and when to end:
//   streaming   when rows go both ways between it and the partner
//   told        at the end of its standard input
//   told, full  the same, with more rows than the connection to a peer that does not read can hold
#include <arpa/inet.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstring>
#include <memory>
#include <thread>

#include "Leave.h"
#include "Statics.h"

namespace {

void StreamBothWays(const std::shared_ptr<Varnix::Table>& table, const std::string& name,
                    const std::atomic<bool>& sending) {
  const std::shared_ptr<Varnix::WatcherSet> received = Varnix::MakeWatcherSet({table->Watch("of the partner")});
  std::thread([table, name] {
    for (unsigned long count = 0;; ++count) table->Set({"of " + name, std::to_string(count) + std::string(1000, '.')});
  }).detach();
  received->Wait();
  while (!sending) std::this_thread::yield();
}

void AwaitEndOfInput() {
  char byte;
  while (read(STDIN_FILENO, &byte, 1) > 0) {
  }
}

}  // namespace

int main(int, char** argv) {
  const std::string group = argv[2], name = argv[3], when = argv[4];
  const auto sending = std::make_shared<std::atomic<bool>>(false);
  Varnix::SetLoggingFunction([sending](Varnix::LogLevel, const char* tag, const char*, va_list) {
    if (std::strcmp(tag, "tblsndr.strm") == 0) *sending = true;
  });
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeSharedTable("plant", "state");
  if (when == "told, full") {
    for (int number = 0; number < 20; ++number) table->Set({std::to_string(number), std::string(1'000'000, 'v')});
  }
  Varnix::SetSharingGroup("plant", group, "passer-by", name, inet_addr("127.255.255.255"));
  if (when == "streaming") {
    StreamBothWays(table, name, *sending);
  } else {
    AwaitEndOfInput();
  }
  return Leave(argv[1]);
}
