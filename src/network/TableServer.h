#pragma once

#include <Varnix.h>
#include <netinet/in.h>

#include <condition_variable>
#include <memory>
#include <string>
#include <thread>

#include "network/ServerSockets.h"
#include "threads/Mutex.h"

class ActiveESNs;
class Discovery;
class LocalTable;

// Shares one table with the members of a group on the local network: serves its own table to every peer that connects,
// and sets what found peers send into another.
//
// Threads: a discovery thread and an accept thread, which Stop() joins; and one detached thread for every peer
// connected to and from, whose end Stop() awaits. All of them read the fixed fields; none writes. Stop() runs once, on
// one thread; NetworkChanged() must not run after it has begun. The server's mutex comes before that of ActiveESNs.
// Errors: a system call that fails during construction is logged and ends the process.
class TableServer {
 public:
  // `uid` is who we are: CombinedKey(device, process). `broadcast_address` is used as it is, in network byte order.
  // Throws std::bad_alloc or std::system_error when there is no memory or no thread to be had.
  TableServer(const std::string& uid, const std::string& database, const std::shared_ptr<Varnix::Table>& receive_table,
              const std::shared_ptr<Varnix::Table>& send_table, const std::string& group, unsigned broadcast_address);
  // Stops, if that has not been done.
  ~TableServer();
  TableServer(const TableServer&) = delete;
  TableServer& operator=(const TableServer&) = delete;

  // Returns when no thread uses the server any more. What the log hook throws on the way is thrown at the end.
  void Stop();
  // Has the discovery thread announce us in a burst.
  void NetworkChanged();

  // Start a thread for a peer, in host byte order: one that receives from it, or one that serves it on `socket`. When
  // there is none to be had, it is logged and the socket closed; the peer's next announcement tries again. Of each kind
  // the process has at most 1,024, and no more than three eighths of its limit of descriptors.
  void FoundPeer(unsigned address, unsigned short port, std::shared_ptr<ActiveESNs> active_esns);
  void IncomingConnection(int socket, unsigned address);

  const std::string& GetUid() const { return uid_; }
  const std::string& GetDatabase() const { return database_; }
  const std::string& GetGroup() const { return group_; }
  const std::shared_ptr<Varnix::Table>& GetReceiveTable() const { return receive_table_; }
  const std::shared_ptr<Varnix::Table>& GetSendTable() const { return send_table_; }
  std::shared_ptr<Varnix::Table> GetDoneTable() const;
  int GetDoneDescriptor() const { return done_pipe_.read_end; }
  unsigned short GetListenPort() const { return listen_port_; }

 private:
  friend class Discovery;

  void Accept();
  void AcceptConnection();
  void PauseAccepting();
  void StartThreads();
  void SignalDone();
  void SetDoneRow();
  void JoinThreads();
  void AwaitPeerThreads() VARNIX_EXCLUDES(mutex_);
  void CloseDescriptors();

  const std::string uid_;
  const std::string database_;
  const std::string group_;
  const std::shared_ptr<Varnix::Table> receive_table_;
  const std::shared_ptr<Varnix::Table> send_table_;
  const std::shared_ptr<LocalTable> done_table_;  // Gets a row when the server stops; the sender threads watch it.
  std::shared_ptr<ActiveESNs> active_esns_;
  Mutex mutex_;
  std::condition_variable released_cv_;
  bool esns_released_ VARNIX_GUARDED_BY(mutex_) = false;
  sockaddr_in broadcast_addr_;
  int listen_fd_;
  int discover_fd_;
  Pipe done_pipe_;  // Readable from the moment the server stops: the stop signal of every wait but the sender threads'.
  Pipe wake_pipe_;
  unsigned short listen_port_;
  std::thread discover_thread_;
  std::thread accept_thread_;
  bool stopped_ = false;
};
