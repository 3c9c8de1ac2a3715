// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Ends well at SIGTERM or SIGINT: the thread that waits for rows is woken by a row of a table of this process's own.
//
//   $ end_at_sigterm &
//   running
//   $ kill %1
//   ended by signal 15

#include <Varnix.h>
#include <arpa/inet.h>
#include <pthread.h>

#include <csignal>
#include <iostream>
#include <memory>
#include <thread>

namespace {

void PrintRows(Varnix::WatcherSet& changes, const std::shared_ptr<Varnix::Watcher>& stop) {
  for (;;) {
    const auto change = changes.Wait();
    // Asked for by itself, too: the set promises no order, and rows may come without a pause.
    if (change.second == stop || !stop->GetChanges().empty()) return;
    std::cout << change.first.first << " is " << change.first.second << std::endl;
  }
}

}  // namespace

int main() {
  // Before any thread starts, because each inherits the mask, the library's threads too: sigwait() alone gets them.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  const std::shared_ptr<Varnix::Table> status = Varnix::MakeSharedTable("plant", "status");
  Varnix::SetSharingGroup("plant", "line-4", "press", "printer", inet_addr("127.255.255.255"));
  const std::shared_ptr<Varnix::Table> own = Varnix::MakeTable("own");
  const std::shared_ptr<Varnix::Watcher> stop = own->Watch("stop");
  const std::shared_ptr<Varnix::WatcherSet> changes = Varnix::MakeWatcherSet({status->WatchAll(), stop});
  std::thread printer([&] { PrintRows(*changes, stop); });
  std::cout << "running" << std::endl;

  int signal = 0;
  sigwait(&signals, &signal);
  own->Set({"stop", ""});  // Not in a signal handler: Set() takes locks.
  printer.join();
  std::cout << "ended by signal " << signal << std::endl;
}
