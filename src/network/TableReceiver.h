#pragma once

#include <Varnix.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>

#include "network/Cookie.h"

class ActiveESNs;
class TableServer;

// The receiving side of one table stream: connects to a peer, checks who it is, and sets each row it sends into the
// server's table.
//
// Threads: lives on the stack of the thread that receives from one peer.
// Ownership: owns the socket.
class TableReceiver {
 public:
  // `address` and `port` are the peer's, in host byte order.
  TableReceiver(TableServer& server, unsigned address, unsigned short port);
  ~TableReceiver();
  TableReceiver(const TableReceiver&) = delete;
  TableReceiver& operator=(const TableReceiver&) = delete;

  // The steps of a stream, in this order; false ends it. Those that read throw AbortRequested when the server stops.

  // Ends the process when there is no socket to be had.
  void MakeSocket();
  bool Connect(std::chrono::nanoseconds time_limit);
  // False when TCP has connected the socket to itself, which it may where nobody listens at a port of this host.
  bool IsConnectedToAnother() const;
  bool MakeStream();
  // Throws WrongServer when the peer serves another database, SelfConnect when it is us.
  bool ReceiveUid(std::string& uid);
  bool SendGroup(const std::string& peer_uid);
  void ReceiveRows();

 private:
  void SetKeepalive();
  bool SetOption(int level, int option, int value) const;
  bool SetNonBlocking();
  bool ConnectWithin(std::chrono::nanoseconds time_limit);
  bool StartConnecting();
  bool WaitForConnection(std::chrono::nanoseconds time_limit);
  bool CheckConnection();
  void SetBlocking();

  TableServer& server_;
  const std::shared_ptr<Varnix::Table> receive_table_;
  const std::string database_;
  const std::string group_;
  const unsigned address_;
  const unsigned short port_;
  const unsigned short listen_port_;
  int socket_ = -1;
  std::unique_ptr<Cookie> cookie_;
  FILE* stream_ = nullptr;
};

// Receives from a peer until the stream ends, or never starts, for a reason that is none of the exceptions. When the
// peer was met at another place meanwhile, and refused there, starts to receive from that place.
// Throws SelfConnect, WrongServer, AlreadyConnected (a stream from that peer is running already) or AbortRequested.
void ReceiveTable(TableServer& server, unsigned address, unsigned short port, std::chrono::nanoseconds time_limit,
                  const std::shared_ptr<ActiveESNs>& active_esns);
