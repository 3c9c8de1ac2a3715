#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <memory>
#include <string>
#include <system_error>

#include "Expect.h"
#include "SystemCallHooks.h"
#include "databases/TableDecombiner.h"
#include "logging/Log.h"
#include "names/CombinedKey.h"
#include "network/ActiveESNs.h"
#include "network/TableServer.h"

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

// A table server that sends nothing and starts no thread for a peer, for a target to run the parts of on its own
// thread.
class QuietServer {
 public:
  QuietServer()
      : sendto_(Hooks().sendto, [](int, const void*, std::size_t size, int, const sockaddr*,
                                   socklen_t) { return static_cast<ssize_t>(size); }),
        server_(CombinedKey("device", "process"), "db", received_, SendTable(), "group", 0xFFFFFFFFU),
        start_thread_(Hooks().start_thread, [this] {
          ++peers_found_;
          throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
        }) {
    SetLogHook({});
  }

  TableServer& Server() { return server_; }
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
  const std::shared_ptr<ReceivedRows> received_ = std::make_shared<ReceivedRows>();
  Hooked<ssize_t(int, const void*, std::size_t, int, const sockaddr*, socklen_t)> sendto_;
  TableServer server_;
  Hooked<void()> start_thread_;
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
