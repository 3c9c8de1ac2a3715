#pragma once

#include <Varnix.h>

#include <cstdio>
#include <memory>
#include <string>

#include "network/Cookie.h"

class ActiveESNs;
class TableServer;

// The serving side of one table stream: tells who we are, hears which group the peer belongs to, and sends every row of
// the server's table and then each change, until the peer goes or the server stops.
//
// Threads: lives on the stack of the thread that serves one accepted connection.
// Ownership: owns the socket.
class TableSender {
 public:
  TableSender(TableServer& server, int socket);
  ~TableSender();
  TableSender(const TableSender&) = delete;
  TableSender& operator=(const TableSender&) = delete;

  // Ends the process when there is no stream to be had.
  void MakeStream();
  // Returns when the peer is gone or did not answer properly. `address` is the peer's, in host byte order.
  // Throws AbortRequested when the server stops.
  void Converse(unsigned address, const std::shared_ptr<ActiveESNs>& active_esns);

 private:
  bool SendUid();
  bool ReceiveGroup(Varnix::Row& answer);
  void ConnectBack(const Varnix::Row& answer, unsigned address, const std::shared_ptr<ActiveESNs>& active_esns);
  void StreamRows();
  bool PeerIsGone() const;
  void SendRow(const Varnix::Row& row, bool more);
  void SetDelay(bool delayed);

  TableServer& server_;
  const std::shared_ptr<Varnix::Table> send_table_;
  const std::shared_ptr<Varnix::Table> done_table_;
  const std::string uid_;
  const std::string database_;
  Cookie cookie_;
  const int socket_;
  FILE* stream_ = nullptr;
  bool delayed_ = true;  // Whether the kernel holds small segments back, as it does on a new socket.
};

// The body of a thread that serves one accepted connection. Takes over the socket.
void SendTable(TableServer& server, int socket, unsigned address, const std::shared_ptr<ActiveESNs>& active_esns);
