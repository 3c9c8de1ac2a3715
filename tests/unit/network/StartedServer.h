// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <arpa/inet.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <utility>

#include "network/PeerPlace.h"
#include "network/PeerTable.h"
#include "network/TableServer.h"
#include "support/HookedHere.h"

// A server that announces itself on this machine, in a group that no other process is in, and the port on which it
// listens.
class StartedServer {
 public:
  StartedServer(const std::string& uid, const std::string& database, std::shared_ptr<Varnix::Table> received,
                std::shared_ptr<Varnix::Table> sent) {
    const HookedHere getsockname(Hooks().getsockname, [this](int descriptor, sockaddr* address, socklen_t* size) {
      const int result = Hooks().getsockname.Real(descriptor, address, size);
      port_ = ToPeerPlace(*reinterpret_cast<const sockaddr_in*>(address)).port;
      return result;
    });
    server_ = std::make_unique<TableServer>(uid, database, std::move(received), std::move(sent),
                                            "group of " + std::to_string(getpid()), inet_addr("127.255.255.255"),
                                            peer_table_);
  }

  TableServer* operator->() const { return server_.get(); }
  const TableServer* Get() const { return server_.get(); }
  unsigned short Port() const { return port_; }
  void Destroy() { server_.reset(); }

 private:
  unsigned short port_ = 0;
  PeerTable peer_table_{"db"};
  std::unique_ptr<TableServer> server_;
};
