// A datagram of any size and content finds a peer exactly when its size is 2 to 256 bytes and its group is ours.

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "QuietServer.h"
#include "network/Discovery.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static QuietServer quiet;
  const int found = quiet.PeersFound();
  bool delivered = false;
  {
    Hooked poll(Hooks().poll, [&](pollfd* entries, nfds_t count, int time_out) {
      if (count != 3) return Hooks().poll.Real(entries, count, time_out);  // The server's own accept thread.
      entries[0].revents = delivered ? POLLIN : 0;
      entries[1].revents = 0;
      entries[2].revents = delivered ? 0 : POLLIN;
      return 1;
    });
    Hooked recvfrom(Hooks().recvfrom, [&](int, void* buffer, std::size_t room, int, sockaddr*, socklen_t*) {
      if (size > 0) std::memcpy(buffer, data, std::min(room, size));
      delivered = true;
      return static_cast<ssize_t>(size);  // MSG_TRUNC: the real size.
    });
    Discovery(quiet.Server()).Run();
  }
  const bool ours = size == 7 && std::memcmp(data + 2, "group", 5) == 0;
  EXPECT_PROPERTY(quiet.PeersFound() - found == (ours ? 1 : 0));
  return 0;
}
