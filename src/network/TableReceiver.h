// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "network/PeerPlace.h"
#include "network/SocketStream.h"

struct Member;

// The receiving side of one table stream: connects to a peer, checks who it is, and sets each row it sends into the
// member's table.
//
// Threads: lives on the stack of the thread that receives from one peer.
// Ownership: owns the socket.
class TableReceiver {
 public:
  TableReceiver(const Member& member, const PeerPlace& place);
  ~TableReceiver();
  TableReceiver(const TableReceiver&) = delete;
  TableReceiver& operator=(const TableReceiver&) = delete;

  // The steps of a stream, in this order; false ends it. Those that read throw AbortRequested when the server stops.

  // Ends the process when no socket can be made.
  void MakeSocket();
  bool Connect(std::chrono::nanoseconds time_limit);
  bool MakeStream();
  // Throws WrongServer when the peer serves another database, SelfConnect when it has our identity.
  bool ReceiveUid(std::string& uid);
  bool SendGroup(const std::string& peer_uid);
  void ReceiveRows();

 private:
  void SetKeepalive();
  bool SetOption(int level, int option, int value) const;

  const Member& member_;
  const PeerPlace place_;
  std::unique_ptr<SocketStream> stream_;
};

// Receives from a peer until the stream ends, or never starts, for a reason that is none of the exceptions. Returns
// another place at which the peer was met and refused meanwhile, if there is one: it is to be tried next.
// Throws SelfConnect, WrongServer, AlreadyConnected (a stream from that peer is running already) or AbortRequested.
std::optional<PeerPlace> ReceiveTable(const Member& member, const PeerPlace& place, std::chrono::nanoseconds time_limit,
                                      const std::shared_ptr<ActiveESNs>& active_esns);
