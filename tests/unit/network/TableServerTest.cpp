#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "SystemCallHooks.h"
#include "databases/CombinedKey.h"
#include "network/TableServer.h"
#include "support/LogRecorder.h"

TEST(TableServer, AnnouncesItselfAtOnce) {
  LogRecorder log;
  std::mutex mutex;
  std::string announcement;
  Hooked sendto(Hooks().sendto, [&](int, const void* bytes, std::size_t size, int, const sockaddr*, socklen_t) {
    const std::lock_guard<std::mutex> lock(mutex);
    announcement.assign(static_cast<const char*>(bytes), size);
    return static_cast<ssize_t>(size);
  });

  unsigned short port = 0;
  {
    TableServer server(CombinedKey("dev", "proc"), "db", Varnix::MakeTable("r"), Varnix::MakeTable("s"), "group",
                       inet_addr("127.255.255.255"));
    port = server.GetListenPort();
  }

  const char port_bytes[] = {static_cast<char>(port >> 8), static_cast<char>(port & 0xFF)};
  EXPECT_EQ(announcement, std::string(port_bytes, 2) + "group");
}
