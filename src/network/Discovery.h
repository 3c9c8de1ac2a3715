// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <netinet/in.h>
#include <poll.h>

#include <chrono>
#include <memory>
#include <string>

#include "network/PeerPlace.h"

struct Member;

// Makes a member known to its group and finds the others. It broadcasts the member's TCP port and group name at once
// and then every 60 seconds, after a network change at 0, 2, 4 and 6 seconds. It reports the sender of each
// announcement of the same group, also of our own: the handshake of the streams tells who that is.
//
// An announcement is one datagram: the port in 2 bytes, big-endian, then the group's name up to the end.
//
// Threads: one, the server's discovery thread. Made by the caller that starts it, which can be told of lack of memory.
// Errors: a poll that fails, or a wake pipe that cannot be read, is logged and ends the process.
class Discovery {
 public:
  // `socket` is bound to the discovery port; a byte in the wake pipe means that the network has changed.
  Discovery(const Member& member, int socket, int wake_descriptor, const sockaddr_in& broadcast_address,
            const FoundPeerCallback& found_peer, std::shared_ptr<ActiveESNs> active_esns);

  // Returns when the server stops.
  void Run();

 private:
  using Clock = std::chrono::steady_clock;

  enum Entry { kDone, kWake, kSocket, kEntries };

  bool AnnounceWhenDue(Clock::time_point now);
  void AdvanceSchedule();
  bool WaitForEvents(Clock::time_point now);
  void StartBurst();
  void ReceiveAnnouncement();

  const Member& member_;
  const sockaddr_in broadcast_address_;
  const FoundPeerCallback& found_peer_;
  const std::shared_ptr<ActiveESNs> active_esns_;
  const std::string announcement_;
  Clock::time_point next_send_;
  int burst_intervals_left_ = 0;
  pollfd entries_[kEntries];
};
