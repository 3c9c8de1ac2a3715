// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "names/CombinedKey.h"
#include "network/Member.h"
#include "network/PeerPlace.h"
#include "network/PeerTable.h"
#include "support/LogRecorder.h"
#include "support/SystemCallHooks.h"
#include "tables/LocalTable.h"

// A member without a server: the test has the other ends of its descriptors and is told of the peers that it finds. A
// test may change the settings before it uses the member.
class TestMember {
 public:
  static constexpr unsigned short kListenPort = 0xFEDC;

  TestMember()
      : member_{
            CombinedKey("dev", "proc"), "db",        "group", Varnix::MakeTable("received"), Varnix::MakeTable("sent"),
            LocalTable::Make("done"),   &peer_table_} {
    EXPECT_EQ(pipe(done_), 0);
    member_.done_descriptor = done_[0];
    member_.listen_port = kListenPort;
    member_.server = this;
  }
  ~TestMember() {
    for (const int descriptor : done_) Hooks().close.Real(descriptor);
  }
  TestMember(const TestMember&) = delete;
  TestMember& operator=(const TestMember&) = delete;

  Member& operator*() { return member_; }
  Member* operator->() { return &member_; }
  const Member* operator->() const { return &member_; }
  const FoundPeerCallback& FoundPeer() const { return found_peer_; }

  // As a server does that begins to stop.
  void SignalDone() const { ASSERT_EQ(Hooks().write.Real(done_[1], "D", 1), 1); }
  // Each as "address:port", in the order in which they were found.
  const std::vector<std::string>& FoundPeers() const { return found_peers_; }
  // What its log lines begin with.
  std::string Name(const std::string& uid_and_database = "dev::proc::db") const {
    return "TableServer for " + uid_and_database + "(" + AddressOf(this) + ")";
  }

 private:
  PeerTable peer_table_{"db"};
  Member member_;
  int done_[2];
  std::vector<std::string> found_peers_;
  const FoundPeerCallback found_peer_ = [this](const PeerPlace& place, const std::shared_ptr<ActiveESNs>&) {
    found_peers_.push_back(std::to_string(place.address) + ":" + std::to_string(place.port));
  };
};
