#pragma once

#include <pthread.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "network/PeerPlace.h"
#include "threads/FileDescriptor.h"
#include "threads/Mutex.h"

// Starts the threads of one server's peers, one for each peer that is received from and one for each that is served, and
// awaits their end. Of each kind all servers of the process together have at most 1,024, and no more than three eighths
// of the limit of descriptors: a flood of announcements or connections must not take them all.
//
// Threads: any. Its mutex comes before that of ActiveESNs.
// Errors: the constructor throws std::bad_alloc; nothing else throws but what the log hook throws.
class PeerThreads {
 public:
  using Receive = std::function<void(const PeerPlace& place, const std::shared_ptr<ActiveESNs>& active_esns)>;
  using Serve =
      std::function<void(FileDescriptor socket, unsigned address, const std::shared_ptr<ActiveESNs>& active_esns)>;

  // What the threads do. Addresses are in host byte order.
  PeerThreads(std::string database, Receive receive, Serve serve);
  // All threads must have ended: see AwaitAll().
  ~PeerThreads();
  PeerThreads(const PeerThreads&) = delete;
  PeerThreads& operator=(const PeerThreads&) = delete;

  // When there is no thread, that is logged, and the peer's next announcement tries again.
  void StartReceiver(const PeerPlace& place, std::shared_ptr<ActiveESNs> active_esns);
  // Takes over the socket and returns 0; or returns an error number, with the socket left as it is.
  int StartSender(FileDescriptor& socket, unsigned address);

  const std::shared_ptr<ActiveESNs>& GetActiveESNs() const { return active_esns_; }

  // Returns when the last thread has ended. Then no more can be started.
  void AwaitAll() VARNIX_EXCLUDES(mutex_);

 private:
  struct Receiver;
  struct Sender;

  template <class Job>
  int Start(std::unique_ptr<Job>& job);
  template <class Job>
  static void* Run(void* started) noexcept;
  void EndThisThread() VARNIX_EXCLUDES(mutex_);

  const std::string database_;
  const Receive receive_;
  const Serve serve_;
  Mutex mutex_;
  std::condition_variable ended_cv_;
  bool esns_released_ VARNIX_GUARDED_BY(mutex_) = false;
  unsigned running_ VARNIX_GUARDED_BY(mutex_) = 0;
  // Waits to be joined, by the next thread that ends or by AwaitAll().
  std::optional<pthread_t> last_ended_ VARNIX_GUARDED_BY(mutex_);
  std::shared_ptr<ActiveESNs> active_esns_;  // Every thread has one; the end of the last sets esns_released_.
};
