// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "network/PeerThreads.h"

#include <pthread.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <list>
#include <new>
#include <utility>

#include "logging/Log.h"
#include "memory/NeverDestroyed.h"
#include "network/ActiveESNs.h"
#include "network/SystemCalls.h"
#include "threads/StartThread.h"

using Varnix::LogLevel;

namespace {

constexpr rlim_t kMostPeers = 1024;

// Peers of each kind that the process may have at once.
rlim_t MostPeers() {
  rlimit descriptors{RLIM_INFINITY, RLIM_INFINITY};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  return std::min(kMostPeers, descriptors.rlim_cur / 8 * 3);
}

// The threads of all servers, because descriptors are the process's.
std::atomic<unsigned> receivers{0};
std::atomic<unsigned> senders{0};

}  // namespace

// What a thread takes with it.
struct PeerThreads::Receiver {
  static std::atomic<unsigned>& Count() { return receivers; }
  static constexpr const char* kName = "vrx-recv";
  void Run() const { threads.receive_(place, active_esns); }

  PeerThreads& threads;
  FoundPlace place;
  std::shared_ptr<ActiveESNs> active_esns;
};

struct PeerThreads::Sender {
  static std::atomic<unsigned>& Count() { return senders; }
  static constexpr const char* kName = "vrx-send";
  void Run() { threads.serve_(std::move(socket), address, active_esns); }

  PeerThreads& threads;
  FileDescriptor socket;
  unsigned address;
  std::shared_ptr<ActiveESNs> active_esns;
};

Mutex PeerThreads::waiting_lock;
Shortage PeerThreads::shortage_of_receivers;
Shortage PeerThreads::shortage_of_senders;

// Which take turns.
std::list<PeerThreads*>& PeerThreads::ServersWithWaitingPlaces() {
  static NeverDestroyed<std::list<PeerThreads*>> servers;  // Threads may outlive static objects.
  return servers.value;
}

PeerThreads::PeerThreads(std::string database, Receive receive, Serve serve)
    : database_(std::move(database)),
      receive_(std::move(receive)),
      serve_(std::move(serve)),
      active_esns_(std::make_shared<ActiveESNs>([this] {
        MutexLock lock(mutex_);
        esns_released_ = true;
        ended_cv_.notify_one();
      })) {}

PeerThreads::~PeerThreads() { AwaitAll(); }

void PeerThreads::StartReceiver(const PeerPlace& place, std::shared_ptr<ActiveESNs> active_esns) {
  const FoundPlace found{place, std::chrono::steady_clock::now()};
  const int error = TryToStartReceiver(found, std::move(active_esns));
  const bool is_news = error != 0 && LetWait(found);
  StartThoseThatWait();  // There may be threads again since the last one has ended.
  if (!is_news) return;
  errno = error;  // The first log hook prints it, too.
  Log(LogLevel::Error, "tblsvr.fnd.thread", "TableServer: FoundPeer::thread error %d", error);
}

int PeerThreads::TryToStartReceiver(const FoundPlace& place, std::shared_ptr<ActiveESNs> active_esns) {
  std::unique_ptr<Receiver> receiver(new (std::nothrow) Receiver{*this, place, std::move(active_esns)});
  return Start(receiver);
}

// Returns whether the shortage is to be logged.
bool PeerThreads::LetWait(const FoundPlace& place) {
  MutexLock lock(waiting_lock);
  if (!active_esns_) return false;
  try {
    AddToThoseThatWait(place);
  } catch (const std::bad_alloc&) {
    // The peer's next announcement tries again.
  }
  return shortage_of_receivers.NoteRefusal();
}

void PeerThreads::AddToThoseThatWait(const FoundPlace& place) {
  std::list<PeerThreads*> newcomer(waiting_.IsEmpty() ? 1 : 0, this);
  waiting_.Add(place);
  ServersWithWaitingPlaces().splice(ServersWithWaitingPlaces().end(), newcomer);
}

// Starts as many as there is room for.
void PeerThreads::StartThoseThatWait() {
  MutexLock lock(waiting_lock);
  std::list<PeerThreads*>& servers = ServersWithWaitingPlaces();
  while (!servers.empty()) {
    PeerThreads& threads = *servers.front();
    if (!threads.StartFirstThatWaits()) return;
    servers.splice(servers.end(), servers, servers.begin());
    if (threads.waiting_.IsEmpty()) servers.pop_back();
  }
  shortage_of_receivers.End();
}

// False when there is no room for it.
bool PeerThreads::StartFirstThatWaits() {
  const FoundPlace* const place = waiting_.First();
  if (place == nullptr) return true;
  if (TryToStartReceiver(*place, active_esns_) != 0) return false;
  waiting_.RemoveFirst();
  return true;
}

int PeerThreads::StartSender(FileDescriptor& socket, unsigned address) {
  std::unique_ptr<Sender> sender(new (std::nothrow) Sender{*this, std::move(socket), address, active_esns_});
  const int error = Start(sender);
  if (sender) socket = std::move(sender->socket);
  return error;
}

bool PeerThreads::NoteSenderResult(int error) {
  MutexLock lock(waiting_lock);
  if (error != 0) return shortage_of_senders.NoteRefusal();
  shortage_of_senders.End();
  return false;
}

// Gives `job` to a thread and returns 0; or returns an error number, with `job` left as it is.
template <class Job>
int PeerThreads::Start(std::unique_ptr<Job>& job) {
  if (!job) return ENOMEM;
  int error = EAGAIN;
  if (++Job::Count() <= MostPeers()) {
    MutexLock lock(mutex_);
    error = StartThread(&Run<Job>, job.get());
    if (error == 0) ++running_;
  }
  if (error == 0) {
    job.release();  // NOLINT(bugprone-unused-return-value): the thread has it.
  } else {
    --Job::Count();
  }
  return error;
}

template <class Job>
void* PeerThreads::Run(void* started) noexcept {
  std::unique_ptr<Job> job(static_cast<Job*>(started));
  PeerThreads& threads = job->threads;
  NameThisThread(Job::kName, threads.database_.c_str());
  job->Run();
  job.reset();
  threads.JoinPreviouslyEnded();
  --Job::Count();  // Now only this thread is left that ends without being counted.
  StartThoseThatWait();
  threads.EndThisThread();
  return nullptr;
}

// Each thread joins the one that has ended before it, so that at most one waits to be joined.
void PeerThreads::JoinPreviouslyEnded() {
  std::optional<pthread_t> previous;
  {
    MutexLock lock(mutex_);
    previous = std::exchange(last_ended_, pthread_self());
  }
  if (previous) pthread_join(*previous, nullptr);
}

// The last that a thread does with this object.
void PeerThreads::EndThisThread() {
  MutexLock lock(mutex_);
  --running_;
  ended_cv_.notify_one();
}

void PeerThreads::AwaitAll() {
  std::shared_ptr<ActiveESNs> released;
  {
    MutexLock lock(waiting_lock);
    waiting_.Clear();
    ServersWithWaitingPlaces().remove(this);
    if (ServersWithWaitingPlaces().empty()) shortage_of_receivers.End();
    released.swap(active_esns_);
  }
  released.reset();
  std::optional<pthread_t> last;
  {
    MutexLock lock(mutex_);
    while (!esns_released_ || running_ > 0) ended_cv_.wait(lock.ForWaiting());
    last = std::exchange(last_ended_, std::nullopt);
  }
  if (last) pthread_join(*last, nullptr);
}

void PeerThreads::Lock() VARNIX_NO_LOCK_ANALYSIS { waiting_lock.lock(); }

void PeerThreads::Unlock() VARNIX_NO_LOCK_ANALYSIS { waiting_lock.unlock(); }

void PeerThreads::ForgetAllInChild() VARNIX_NO_LOCK_ANALYSIS {
  receivers = 0;
  senders = 0;
  shortage_of_receivers = shortage_of_senders = Shortage();
  for (PeerThreads* threads : ServersWithWaitingPlaces()) threads->waiting_.Clear();
  ServersWithWaitingPlaces().clear();
}
