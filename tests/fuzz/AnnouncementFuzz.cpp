// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// A datagram of any size and content finds a peer exactly when its size is 2 to 256 bytes and its group is ours.

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "QuietMember.h"
#include "network/Discovery.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static QuietMember quiet;
  const int found = quiet.PeersFound();
  bool delivered = false;
  {
    Hooked poll(Hooks().poll, [&](pollfd* entries, nfds_t, int) {
      entries[0].revents = delivered ? POLLIN : 0;
      entries[1].revents = 0;
      entries[2].revents = delivered ? 0 : POLLIN;
      return 1;
    });
    Hooked sendto(Hooks().sendto, [](int, const void*, std::size_t count, int, const sockaddr*, socklen_t) {
      return static_cast<ssize_t>(count);
    });
    Hooked recvfrom(Hooks().recvfrom, [&](int, void* buffer, std::size_t room, int, sockaddr*, socklen_t*) {
      if (size > 0) std::memcpy(buffer, data, std::min(room, size));
      delivered = true;
      return static_cast<ssize_t>(size);  // MSG_TRUNC: the real size.
    });
    Discovery(*quiet, -1, -1, {}, quiet.FoundPeer(), nullptr).Run();
  }
  const bool ours = size == 7 && std::memcmp(data + 2, "group", 5) == 0;
  EXPECT_PROPERTY(quiet.PeersFound() - found == (ours ? 1 : 0));
  return 0;
}
