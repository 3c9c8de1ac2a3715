// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <Varnix.h>

#include <chrono>
#include <cstddef>
#include <memory>

#include "network/PeerPlace.h"
#include "network/SocketStream.h"

struct Member;

// The serving side of one table stream: tells who we are, hears which group the peer belongs to, and sends every row of
// the member's table and then each change, until the peer goes or the server stops.
//
// Rows that are ready at once leave together: the buffer is flushed when no more are ready, when it is full, at the
// first row that comes half a millisecond after the oldest in it, and before a log hook of the program is called. What
// is written of a row with an empty field stays there until the next row without one.
//
// The handshake has no time limit: the end of the connection or of the server ends it.
//
// Threads: lives on the stack of the thread that serves one accepted connection.
// Ownership: owns the socket.
class TableSender {
 public:
  TableSender(const Member& member, FileDescriptor socket);
  ~TableSender();
  TableSender(const TableSender&) = delete;
  TableSender& operator=(const TableSender&) = delete;

  // Ends the process when no stream can be made.
  void MakeStream();
  // Returns when the peer is gone or did not answer properly. `address` is the peer's, in host byte order; `found_peer`
  // is told where it listens if it is of our group. Throws AbortRequested when the server stops.
  void Converse(unsigned address, const std::shared_ptr<ActiveESNs>& active_esns, const FoundPeerCallback& found_peer);

 private:
  bool SendUid();
  bool ReceiveGroup(Varnix::Row& answer);
  void ConnectBack(const Varnix::Row& answer, unsigned address, const std::shared_ptr<ActiveESNs>& active_esns,
                   const FoundPeerCallback& found_peer);
  using Clock = std::chrono::steady_clock;

  void StreamRows();
  bool PeerIsGone() const;
  void SendRow(const Varnix::Row& row, bool more, Clock::time_point now);
  bool MayStayInBuffer(Clock::time_point now) const;
  void SendBuffered();
  void SetDelay(bool delayed);

  const Member& member_;
  const std::unique_ptr<SocketStream> stream_;
  std::size_t buffered_ = 0;  // Bytes of rows in the buffer; 0 when nothing waits for a flush.
  Clock::time_point buffered_since_;
  bool delayed_ = true;  // Whether the kernel holds small segments back, as it does on a new socket.
};

// The body of a thread that serves one accepted connection.
void SendTable(const Member& member, FileDescriptor socket, unsigned address,
               const std::shared_ptr<ActiveESNs>& active_esns, const FoundPeerCallback& found_peer);
