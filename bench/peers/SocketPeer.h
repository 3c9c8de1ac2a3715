// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <string>
#include <string_view>

#include "Peer.h"

// The sockets of the limits: records of the layout that the library's have, each with the system calls that the library
// makes for it. One record a send: poll for room, send, poll for the end of the connection; the receiver polls and
// takes 8,192 bytes at a time.
class SocketPeer : public Peer {
 protected:
  // The way to one peer that watches the written table.
  class Stream;

  explicit SocketPeer(const PeerSettings& settings);

  // The last step of a derived constructor: from here on other threads call SendRows. Does nothing if no table is
  // written.
  void StartServing();

  // Sends every row, then what changes, until Stream::Send fails. Called for each peer in a thread of its own.
  virtual void SendRows(Stream& stream) = 0;

  // Calls `received` for each record of the watched table that arrives.
  [[noreturn]] void Receive(const Seen& received) const;

  // Under which key the rows of the written table go over the wire.
  std::string CombinedKey(const std::string& key) const;

  static std::string Record(std::string_view combined_key, std::string_view value);

 private:
  void Accept();
  int Connect() const;

  const PeerSettings settings_;
  int done_[2];  // Never written to: what the library polls to learn of its stop.
};

class SocketPeer::Stream {
 public:
  Stream(int connection, int done) : connection_(connection), done_(done) {}
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  ~Stream();

  // False once the peer is gone. `more`: the next record is there already, so both may share a segment.
  bool Send(const std::string& record, bool more);

 private:
  void SetDelay(bool delayed);

  const int connection_;
  const int done_;
  bool delayed_ = true;
};
