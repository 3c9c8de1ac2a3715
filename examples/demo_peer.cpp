// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// One of the two processes of scripts/demo: demo_peer GROUP NAME
//
// Reads commands from standard input, one a line, and ends with it:
//
//   set KEY VALUE
//
// Reports events on standard output, one a line; TIME counts microseconds on the clock that all processes share:
//
//   starts TIME NAME
//   found TIME PEER       rows of this peer are received from now on
//   set TIME KEY VALUE
//   saw TIME KEY VALUE    a watcher of the whole table reported the row, whoever has set it

#include <Varnix.h>
#include <arpa/inet.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <thread>

namespace {

// One line in one piece: several threads report.
void Report(const char* event, const std::string& what) {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  std::printf("%s %lld %s\n", event,
              static_cast<long long>(std::chrono::duration_cast<std::chrono::microseconds>(now).count()), what.c_str());
  std::fflush(stdout);
}

// Of all messages the demo shows one: "TableServer for ... found peer: DEVICE::PROCESS ADDRESS PORT".
void ReportFoundPeers(Varnix::LogLevel, const char* tag, const char* format, va_list arguments) {
  if (std::strcmp(tag, "tblsvr.fnd") != 0) return;
  char message[512];
  std::vsnprintf(message, sizeof message, format, arguments);
  const std::string text = message;
  const std::string::size_type name = text.rfind("::") + 2;
  Report("found", text.substr(name, text.find(' ', name) - name));
}

void ReportChanges(Varnix::WatcherSet& changes, const std::shared_ptr<Varnix::Watcher>& end) {
  for (;;) {
    const auto change = changes.Wait();
    if (change.second == end) return;
    Report("saw", change.first.first + " " + change.first.second);
  }
}

void ObeyCommands(Varnix::Table& table) {
  std::string command, key, value;
  while (std::cin >> command >> key >> value && command == "set") {
    Report("set", key + " " + value);
    table.Set({key, value});
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: demo_peer GROUP NAME\n";
    return 2;
  }
  const std::string group = argv[1], name = argv[2];

  Varnix::SetLoggingFunction(ReportFoundPeers);
  Report("starts", name);
  const std::shared_ptr<Varnix::Table> shared = Varnix::MakeSharedTable("demo", "machine");
  Varnix::SetSharingGroup("demo", group, "this-device", name, inet_addr("127.255.255.255"));  // Stays on this device.

  const std::shared_ptr<Varnix::Table> own = Varnix::MakeTable("own");
  const std::shared_ptr<Varnix::Watcher> end = own->Watch("end");
  const std::shared_ptr<Varnix::WatcherSet> changes = Varnix::MakeWatcherSet({shared->WatchAll(), end});
  std::thread reporter([&] { ReportChanges(*changes, end); });
  ObeyCommands(*shared);
  own->Set({"end", ""});
  reporter.join();
}
