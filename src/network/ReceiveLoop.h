// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <chrono>
#include <memory>

#include "network/PeerPlace.h"

struct Member;

// Receives from one found peer, again and again, until its retry period is over: 30 seconds from when it was found, or
// from the end of the last attempt that lasted 9 seconds or more. After an attempt of less than a second it waits 2
// seconds. Nothing is remembered of a place that failed: its next announcement starts a new loop.
//
// Threads: one, started for this peer.
class ReceiveLoop {
 public:
  // `found_peer` is told when the peer was met at another place meanwhile.
  ReceiveLoop(const Member& member, const FoundPlace& place, std::shared_ptr<ActiveESNs> active_esns,
              const FoundPeerCallback& found_peer);

  // Returns when it has given up, when it turns out that this peer needs no stream from here, and when the server
  // stops.
  void Run();

 private:
  using Clock = std::chrono::steady_clock;

  bool ReceiveOnce();
  bool ExtendOrCheckDeadline(Clock::duration lasted, Clock::time_point ended);
  bool PauseBeforeRetry();

  const Member& member_;
  const FoundPlace place_;
  const std::shared_ptr<ActiveESNs> active_esns_;
  const FoundPeerCallback& found_peer_;
  Clock::time_point deadline_;
};
