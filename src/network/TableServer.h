// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <Varnix.h>
#include <netinet/in.h>

#include <memory>
#include <string>
#include <thread>

#include "network/Member.h"
#include "network/PeerThreads.h"
#include "network/ServerSockets.h"

// Shares one table with the members of a group on the local network: serves its own table to every peer that connects,
// and sets what found peers send into another. This class is the life cycle; Discovery, Acceptor and PeerThreads do the
// work.
//
// Threads: a discovery thread and an accept thread, which Stop() joins; and one thread for each peer connected to and
// from, whose end Stop() awaits. All of them read the fixed fields; none writes. Stop() runs once, on one thread;
// NetworkChanged() must not run after it has begun.
// Errors: a system call that fails during construction is logged and ends the process.
class TableServer {
 public:
  // `uid` is who we are: CombinedKey(device, process). `broadcast_address` is used as it is, in network byte order.
  // Throws std::bad_alloc or std::system_error when there is no memory or no thread.
  TableServer(const std::string& uid, const std::string& database, const std::shared_ptr<Varnix::Table>& receive_table,
              const std::shared_ptr<Varnix::Table>& send_table, const std::string& group, unsigned broadcast_address,
              PeerTable& peer_table);
  // Stops, if that has not been done.
  ~TableServer();
  TableServer(const TableServer&) = delete;
  TableServer& operator=(const TableServer&) = delete;

  // Returns when no thread uses the server any more. What the log hook throws on the way is thrown at the end.
  void Stop();
  // Has the discovery thread announce us in a burst.
  void NetworkChanged();

  // For fork(), under all locks: removes the done table from the child's registry. The rest stays as it is, because its
  // end would wait for threads that the child does not have.
  void ForgetInChild();

  // Start a thread for a peer, whose address is in host byte order: one that receives from it, or one that serves it.
  void FoundPeer(unsigned address, unsigned short port, std::shared_ptr<ActiveESNs> active_esns);
  int IncomingConnection(FileDescriptor& socket, unsigned address);

 private:
  void Accept();
  void StartThreads();
  void SignalDone();
  void RefuseConnections();
  void SetDoneRow();
  void JoinThreads();
  void CloseDescriptors();

  Member member_;  // Fixed before the threads start.
  const sockaddr_in broadcast_address_;
  FileDescriptor listener_;
  FileDescriptor discoverer_;
  Pipe done_pipe_;
  Pipe wake_pipe_;
  const FoundPeerCallback found_peer_;
  PeerThreads peer_threads_;
  std::thread discover_thread_;
  std::thread accept_thread_;
  bool stopped_ = false;
};
