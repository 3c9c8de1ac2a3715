// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <pthread.h>

#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include "network/PeerPlace.h"
#include "network/Shortage.h"
#include "network/WaitingPlaces.h"
#include "threads/FileDescriptor.h"
#include "threads/Mutex.h"

// Starts the threads of one server's peers, one for each peer that is received from and one for each that is served,
// and awaits their end. The process has at most 1,024 of each kind, for all servers together, and no more than three
// eighths of the limit of descriptors: a flood of announcements or connections must not take them all. A place for
// which there is no thread waits until a thread of any server has ended, or until it was found 30 seconds ago. The
// acceptor decides what becomes of a connection for which there is no thread.
//
// Threads: any. The lock of the places that wait, one for the process, comes before the mutex of each object, and that
// before the one of ActiveESNs.
// Errors: the constructor throws std::bad_alloc; nothing else throws but what the log hook throws.
class PeerThreads {
 public:
  using Receive = std::function<void(const FoundPlace& place, const std::shared_ptr<ActiveESNs>& active_esns)>;
  using Serve =
      std::function<void(FileDescriptor socket, unsigned address, const std::shared_ptr<ActiveESNs>& active_esns)>;

  // What the threads do. Addresses are in host byte order.
  PeerThreads(std::string database, Receive receive, Serve serve);
  // Awaits their end.
  ~PeerThreads();
  PeerThreads(const PeerThreads&) = delete;
  PeerThreads& operator=(const PeerThreads&) = delete;

  // When there is no thread, the place waits for one. The shortage is logged once at most, for all servers, until no
  // place is left that waits.
  void StartReceiver(const PeerPlace& place, std::shared_ptr<ActiveESNs> active_esns);
  // Takes over the socket and returns 0; or returns an error number, with the socket left as it is.
  int StartSender(FileDescriptor& socket, unsigned address);
  // Takes StartSender()'s last result for a connection. True when it is to be logged: once at most, for all servers,
  // until a connection gets a thread again.
  static bool NoteSenderResult(int error) VARNIX_EXCLUDES(waiting_lock);

  const std::shared_ptr<ActiveESNs>& GetActiveESNs() const { return active_esns_; }

  // Returns when the last thread has ended. Then no more can be started.
  void AwaitAll() VARNIX_EXCLUDES(mutex_);

  // For fork(). The child has none of the threads.
  static void Lock();
  static void Unlock();
  static void ForgetAllInChild();

 private:
  struct Receiver;
  struct Sender;

  static std::list<PeerThreads*>& ServersWithWaitingPlaces() VARNIX_REQUIRES(waiting_lock);
  int TryToStartReceiver(const FoundPlace& place, std::shared_ptr<ActiveESNs> active_esns);
  bool LetWait(const FoundPlace& place) VARNIX_EXCLUDES(waiting_lock);
  void AddToThoseThatWait(const FoundPlace& place) VARNIX_REQUIRES(waiting_lock);
  bool StartFirstThatWaits() VARNIX_REQUIRES(waiting_lock);
  static void StartThoseThatWait() VARNIX_EXCLUDES(waiting_lock);
  template <class Job>
  int Start(std::unique_ptr<Job>& job);
  template <class Job>
  static void* Run(void* started) noexcept;
  void JoinPreviouslyEnded() VARNIX_EXCLUDES(mutex_);
  void EndThisThread() VARNIX_EXCLUDES(mutex_);

  // Of all servers.
  static Mutex waiting_lock;
  static Shortage shortage_of_receivers VARNIX_GUARDED_BY(waiting_lock);
  static Shortage shortage_of_senders VARNIX_GUARDED_BY(waiting_lock);

  const std::string database_;
  const Receive receive_;
  const Serve serve_;
  WaitingPlaces waiting_ VARNIX_GUARDED_BY(waiting_lock);
  Mutex mutex_;
  std::condition_variable ended_cv_;
  bool esns_released_ VARNIX_GUARDED_BY(mutex_) = false;
  unsigned running_ VARNIX_GUARDED_BY(mutex_) = 0;
  // Waits to be joined, by the next thread that ends or by AwaitAll().
  std::optional<pthread_t> last_ended_ VARNIX_GUARDED_BY(mutex_);
  // Every thread has one; the end of the last sets esns_released_. Changed by AwaitAll() alone, after the threads that
  // find peers and accept connections have ended.
  std::shared_ptr<ActiveESNs> active_esns_;
};
