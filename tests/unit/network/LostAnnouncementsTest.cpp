// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "names/CombinedKey.h"
#include "network/PeerTable.h"
#include "network/TableServer.h"
#include "support/SystemCallHooks.h"

using namespace std::chrono_literals;

namespace {

// A minute goes by in half a second: for the steady clock, and for the waits that poll() ends.
class FastTime {
 private:
  static constexpr int kTimes = 120;

  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  Hooked<std::chrono::steady_clock::time_point()> now_{
      Hooks().now, [this] { return start_ + (Hooks().now.Real() - start_) * kTimes; }};
  Hooked<int(pollfd*, nfds_t, int)> poll_{Hooks().poll, [](pollfd* entries, nfds_t count, int time_out) {
                                            return Hooks().poll.Real(entries, count,
                                                                     time_out > 0 ? time_out / kTimes + 1 : time_out);
                                          }};
};

// Of the announcements of each server only the second arrives.
class OnlySecondAnnouncements {
 private:
  std::mutex mutex_;
  std::map<int, int> sent_;  // By descriptor.
  Hooked<ssize_t(int, const void*, std::size_t, int, const sockaddr*, socklen_t)> sendto_{
      Hooks().sendto,
      [this](int descriptor, const void* bytes, std::size_t size, int flags, const sockaddr* to, socklen_t to_size) {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (++sent_[descriptor] != 2) return static_cast<ssize_t>(size);
        return Hooks().sendto.Real(descriptor, bytes, size, flags, to, to_size);
      }};
};

struct ServerWithOneRow {
  explicit ServerWithOneRow(const std::string& name)
      : server((sent->Set({"row", "of " + name}), CombinedKey("dev", name)), "db", received, sent,
               "group of " + std::to_string(getpid()), inet_addr("127.255.255.255"), peers) {}

  bool Gets(const std::string& value) const {
    const auto watcher = received->Watch("row");
    const auto deadline = std::chrono::system_clock::now() + 20s;  // It only bounds a failing run.
    for (;;) {
      const std::vector<Varnix::Row> changes = watcher->GetChanges();
      if (!changes.empty()) return changes.front().second == value;
      if (std::chrono::system_clock::now() > deadline) return false;
      std::this_thread::yield();
    }
  }

  const std::shared_ptr<Varnix::Table> received = Varnix::MakeTable("received");
  const std::shared_ptr<Varnix::Table> sent = Varnix::MakeTable("sent");
  PeerTable peers{"db"};
  TableServer server;
};

}  // namespace

TEST(LostAnnouncementsTest, MembersMeetByTheSecondAnnouncementWhenTheFirstIsLost) {
  const OnlySecondAnnouncements lossy;
  const FastTime fast;

  const ServerWithOneRow left("left");
  const ServerWithOneRow right("right");

  EXPECT_TRUE(left.Gets("of right"));
  EXPECT_TRUE(right.Gets("of left"));
}
