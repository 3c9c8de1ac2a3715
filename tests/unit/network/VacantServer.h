#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "SystemCallHooks.h"
#include "names/CombinedKey.h"
#include "network/TableServer.h"

struct ServerSettings {
  std::string uid = CombinedKey("dev", "proc");
  std::string database = "db";
  std::string group = "group";
  std::shared_ptr<Varnix::Table> receive_table = Varnix::MakeTable("received");
  std::shared_ptr<Varnix::Table> send_table = Varnix::MakeTable("sent");
};

// A table server whose own two threads have ended at once, so that the test takes their place: nobody else sends or
// takes what is in its descriptors. It says that it listens on port 0xFEDC, and hears announcements on a loopback port
// of its own.
class VacantServer {
 public:
  static constexpr unsigned short kListenPort = 0xFEDC;

  explicit VacantServer(const ServerSettings& settings = {}) {
    const auto ended = std::make_shared<std::atomic<int>>(0);
    const Hooked poll(Hooks().poll, [ended](pollfd* entries, nfds_t, int) {
      entries[0].revents = POLLIN;  // The server stops, say both threads to themselves.
      ++*ended;
      return 1;
    });
    const Hooked sendto(Hooks().sendto, [](int, const void*, std::size_t size, int, const sockaddr*, socklen_t) {
      return static_cast<ssize_t>(size);
    });
    const Hooked getsockname(Hooks().getsockname, [](int, sockaddr* address, socklen_t*) {
      reinterpret_cast<sockaddr_in*>(address)->sin_port = htons(kListenPort);
      return 0;
    });
    const Hooked bind(Hooks().bind, [this](int descriptor, const sockaddr* address, socklen_t size) {
      if (reinterpret_cast<const sockaddr_in*>(address)->sin_port == htons(1975)) discovery_socket_ = descriptor;
      sockaddr_in loopback{};
      loopback.sin_family = AF_INET;
      loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      return Hooks().bind.Real(descriptor, reinterpret_cast<const sockaddr*>(&loopback), size);
    });
    const Hooked pipe(Hooks().pipe, [this, first = true](int* ends) mutable {
      const int result = Hooks().pipe.Real(ends);
      if (first) done_write_end_ = ends[1];
      if (!first) wake_read_end_ = ends[0];
      first = false;
      return result;
    });
    server_ = std::make_unique<TableServer>(settings.uid, settings.database, settings.receive_table,
                                            settings.send_table, settings.group, inet_addr("127.255.255.255"));
    const auto deadline = std::chrono::system_clock::now() + std::chrono::seconds(10);
    while (*ended < 2 && std::chrono::system_clock::now() < deadline) std::this_thread::yield();
    EXPECT_EQ(*ended, 2) << "the server's threads did not start";
  }

  TableServer& operator*() const { return *server_; }
  TableServer* operator->() const { return server_.get(); }
  int DiscoverySocket() const { return discovery_socket_; }
  int WakeReadEnd() const { return wake_read_end_; }
  // As a server does that begins to stop.
  void SignalDone() const { ASSERT_EQ(Hooks().write.Real(done_write_end_, "D", 1), 1); }
  // Returns when the last peer thread has ended.
  void Destroy() { server_.reset(); }

 private:
  int discovery_socket_ = -1;
  int wake_read_end_ = -1;
  int done_write_end_ = -1;
  std::unique_ptr<TableServer> server_;
};
