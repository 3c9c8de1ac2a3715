// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "TwoServers.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

#include "logging/Log.h"
#include "names/CombinedKey.h"
#include "network/PeerTable.h"
#include "network/TableServer.h"
#include "support/Entries.h"
#include "support/FirstThread.h"
#include "support/SystemCallHooks.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

using namespace std::chrono_literals;

namespace {

// Names and rows that no string keeps within itself.
const char kDatabase[] = "database of the two servers";
const char kDevice[] = "device of the two servers";
const std::string kTable = std::string("\x18") + "table of the two servers";
const std::string kPadding(20, ' ');

// A server with its two tables.
class Participant {
 public:
  explicit Participant(std::string process) : process_(std::move(process)) {}

  // Tries again while it is told that there is no thread or no memory to be had.
  void Start() {
    while (server_ == nullptr) {
      try {
        server_ = std::make_unique<TableServer>(CombinedKey(kDevice, process_), kDatabase, received_, sent_,
                                                "group of " + std::to_string(getppid()), inet_addr("127.255.255.255"),
                                                peer_table_);
      } catch (const std::system_error&) {
      } catch (const std::bad_alloc&) {
      }
    }
  }
  void Stop() { server_.reset(); }
  void NetworkChanged() const { server_->NetworkChanged(); }
  void Set(const std::string& key, const std::string& value) const { sent_->Set({kTable + key, kPadding + value}); }
  bool Gets(const std::string& key, const std::string& value, std::chrono::milliseconds limit) const {
    const auto set = Varnix::MakeWatcherSet({received_->Watch(kTable + key)});
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
      const auto [row, changed] = set->WaitUntil(deadline);
      if (!changed || row.second == kPadding + value) return changed != nullptr;
    }
  }

 private:
  const std::string process_;
  const std::shared_ptr<Varnix::Table> received_ = Varnix::MakeTable("received");
  const std::shared_ptr<Varnix::Table> sent_ = Varnix::MakeTable("sent");
  PeerTable peer_table_{"db"};
  std::unique_ptr<TableServer> server_;
};

// Detached threads get a moment to go.
bool ThreadsFallTo(std::ptrdiff_t threads) {
  const auto deadline = std::chrono::system_clock::now() + 10s;
  while (Entries("/proc/self/task") > threads) {
    if (std::chrono::system_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

bool MemoryIsLeft() {
#if defined(__SANITIZE_ADDRESS__)
  return __lsan_do_recoverable_leak_check() != 0;
#else
  return false;
#endif
}

// Waits for a row that may not come before the fault is over; but until the fault strikes there is no reason why it
// should not.
void AwaitWhile(const Fault& fault, std::chrono::milliseconds patience, const Participant& member,
                const std::string& key, const std::string& value) {
  const auto deadline = std::chrono::system_clock::now() + 20s;
  while (!member.Gets(key, value, patience)) {
    if (fault.HasStruck() || std::chrono::system_clock::now() > deadline) return;
  }
}

bool MeetRestartAndStop(Fault& fault, std::chrono::milliseconds patience) {
  Participant left("left");
  Participant right("right");
  left.Set("left", "1");
  right.Set("right", "1");
  left.Start();
  right.Start();
  AwaitWhile(fault, patience, right, "left", "1");
  AwaitWhile(fault, patience, left, "right", "1");
  Log(Varnix::LogLevel::Debug, kRestartTag, "Restarting");
  left.NetworkChanged();
  right.Stop();
  right.Start();
  right.Set("right", "2");
  AwaitWhile(fault, patience, left, "right", "2");
  // Nobody sets these again: they must not be lost.
  left.Set("once, by left", "l");
  right.Set("once, by right", "r");
  fault.End();

  left.NetworkChanged();
  right.NetworkChanged();
  left.Set("left", "3");
  right.Set("right", "3");
  const bool converged = left.Gets("right", "3", 20s) && right.Gets("left", "3", 20s) &&
                         left.Gets("once, by right", "r", 20s) && right.Gets("once, by left", "l", 20s);
  left.Stop();
  right.Stop();
  return converged;
}

// The body of a process.
Ending Run(Fault& fault, std::chrono::milliseconds patience) {
  const std::ptrdiff_t descriptors = Entries("/proc/self/fd");
  const std::ptrdiff_t threads = Entries("/proc/self/task");
  if (!MeetRestartAndStop(fault, patience)) return kNotConverged;
  if (Entries("/proc/self/fd") != descriptors) return kDescriptorLeft;
  if (!ThreadsFallTo(threads)) return kThreadLeft;
  if (MemoryIsLeft()) return kMemoryLeft;
  return fault.HasStruck() ? kConverged : kFewerCalls;
}

}  // namespace

bool Fault::Strikes() {
  const long call = ++calls_;
  if (over_ || (for_ever_ ? call < first_ : call != first_)) return false;
  if (!struck_.exchange(true)) end_ = Clock::now() + 100ms;
  return Clock::now() < end_.load();
}

int PollQuickly(pollfd* entries, nfds_t count, int time_out) {
  return Hooks().poll.Real(entries, count, time_out == 2000 ? 20 : time_out);
}

Outcome RunTwoServers(long first, bool for_ever, std::chrono::milliseconds patience,
                      const std::function<void(Fault&)>& inject) {
  int ends[2];
  EXPECT_EQ(pipe(ends), 0);
  const pid_t child = fork();
  if (child == 0) {
    dup2(ends[1], STDERR_FILENO);
    alarm(180);  // A hang is an end as well.
    StartAndEndAThread();
    static Fault& fault = *new Fault(first, for_ever);
    Hooks().poll.Set(PollQuickly);
    inject(fault);
    std::_Exit(Run(fault, patience));
  }
  close(ends[1]);
  Outcome outcome{};
  char piece[4096];
  for (ssize_t size; (size = read(ends[0], piece, sizeof piece)) > 0;) {
    outcome.errors.append(piece, static_cast<std::size_t>(size));
    if (outcome.errors.size() > 100000) outcome.errors.erase(0, 50000);
  }
  close(ends[0]);
  waitpid(child, &outcome.status, 0);
  return outcome;
}
