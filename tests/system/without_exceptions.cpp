// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// A program without exceptions and RTTI, in the oldest C++ that the header allows: without_exceptions NAME
//
// Shares a row under its name, with SIGTERM blocked meanwhile, and prints each row of the group that is not its own.
// Ends with its input.
#include <Varnix.h>
#include <arpa/inet.h>
#include <pthread.h>

#include <csignal>
#include <cstdio>
#include <string>
#include <thread>

namespace {

// Tables of the program's own need neither.
class Printer final : public Varnix::Table {
 public:
  void Set(const Varnix::Row& row) override {
    std::printf("%s is %s\n", row.first.c_str(), row.second.c_str());
    std::fflush(stdout);
  }
  std::shared_ptr<Varnix::Watcher> Watch(const std::string&) override { return nullptr; }
  std::shared_ptr<Varnix::Watcher> WatchAll() override { return nullptr; }
};

void SetBlocked(int how) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(how, &signals, nullptr);
}

}  // namespace

int main(int, char** argv) {
  const std::string name = argv[1];
  Varnix::SetLoggingFunction([](Varnix::LogLevel, const char*, const char*, va_list) {});
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeSharedTable("plant", "state");
  table->Set({name, "here"});
  SetBlocked(SIG_BLOCK);
  Varnix::SetSharingGroup("plant", "line-4", "device", name, inet_addr("127.255.255.255"));
  SetBlocked(SIG_UNBLOCK);

  const std::shared_ptr<Varnix::Table> own = Varnix::MakeTable("own");
  const std::shared_ptr<Varnix::Watcher> end = own->Watch("end");
  const std::shared_ptr<Varnix::WatcherSet> changes = Varnix::MakeWatcherSet({table->WatchAll(), end});
  std::thread reader([&] {
    const std::shared_ptr<Varnix::Table> printer = std::make_shared<Printer>();
    for (;;) {
      const auto change = changes->Wait();
      if (change.second == end) return;
      if (change.first.first != name) printer->Set(change.first);
    }
  });
  while (std::getchar() != EOF) {
  }
  own->Set({"end", ""});
  reader.join();
}
