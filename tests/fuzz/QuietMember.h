// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <string>

#include "Expect.h"
#include "databases/TableDecombiner.h"
#include "logging/Log.h"
#include "names/CombinedKey.h"
#include "network/ActiveESNs.h"
#include "network/Member.h"
#include "network/PeerPlace.h"
#include "network/PeerTable.h"
#include "support/Own.h"
#include "support/SystemCallHooks.h"
#include "tables/LocalTable.h"

// Takes rows as a database does. It is emptied by a new start, because a database never forgets a row.
class ReceivedRows final : public Varnix::Table {
 public:
  void Set(const Varnix::Row& row) override { tables_->Set(row); }
  std::shared_ptr<Varnix::Watcher> Watch(const std::string& key) override { return tables_->Watch(key); }
  std::shared_ptr<Varnix::Watcher> WatchAll() override { return tables_->WatchAll(); }

  void Forget() { tables_ = std::make_unique<TableDecombiner>("db"); }

 private:
  std::unique_ptr<TableDecombiner> tables_ = std::make_unique<TableDecombiner>("db");
};

// A member without a server, for a target to run the parts of one on its own thread.
class QuietMember {
 public:
  QuietMember()
      : member_{CombinedKey("device", "process"), "db",        "group", received_, SendTable(),
                LocalTable::Make("done"),         &peer_table_} {
    SetLogHook({});
    EXPECT_PROPERTY(pipe(done_) == 0);
    member_.done_descriptor = done_[0];
    member_.listen_port = 4712;
  }

  const Member& operator*() const { return member_; }
  const FoundPeerCallback& FoundPeer() const { return found_peer_; }
  int PeersFound() const { return peers_found_; }
  void ForgetReceivedRows() { received_->Forget(); }
  std::shared_ptr<ActiveESNs> MakeESNs() const {
    return std::make_shared<ActiveESNs>([] {});
  }

 private:
  static std::shared_ptr<Varnix::Table> SendTable() {
    std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("combined");
    table->Set({CombinedKey("table", "key"), "value"});
    table->Set({CombinedKey("table", "empty"), ""});
    return table;
  }

  int peers_found_ = 0;
  int done_[2];
  const std::shared_ptr<ReceivedRows> received_ = std::make_shared<ReceivedRows>();
  PeerTable peer_table_{"db"};
  Member member_;
  const FoundPeerCallback found_peer_ = [this](const PeerPlace&, const std::shared_ptr<ActiveESNs>&) {
    ++peers_found_;
  };
};

// A connected pair of sockets whose far end has sent `bytes` and nothing more.
struct SocketPair {
  SocketPair(const std::uint8_t* bytes, std::size_t size) {
    int ends[2];
    EXPECT_PROPERTY(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
    near = ends[0];
    far = ends[1];
    EXPECT_PROPERTY(size == 0 || Hooks().send.Real(far, bytes, size, 0) == static_cast<ssize_t>(size));
    shutdown(far, SHUT_WR);
  }

  int near;  // The code under test closes it.
  int far;
};
