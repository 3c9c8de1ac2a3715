// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "network/PeerThreads.h"

#include <pthread.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <list>
#include <new>
#include <utility>

#include "logging/Log.h"
#include "memory/NeverDestroyed.h"
#include "network/ActiveESNs.h"
#include "network/SystemCalls.h"

using Varnix::LogLevel;

namespace {

// More than a group has members.
constexpr rlim_t kMostPeers = 1024;
// Ample for our frames and a log hook. The usual 8 MiB would be too much: a 32-bit process has no room for hundreds of
// those.
constexpr std::size_t kStackSize = std::size_t{256} * 1024;
constexpr std::size_t kLargeStackSize = std::size_t{8} * 1024 * 1024;

// Peers of each kind that the process may have at once.
rlim_t MostPeers() {
  rlimit descriptors{RLIM_INFINITY, RLIM_INFINITY};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  return std::min(kMostPeers, descriptors.rlim_cur / 8 * 3);
}

// The threads of all servers, because descriptors are the process's.
std::atomic<unsigned> receivers{0};
std::atomic<unsigned> senders{0};

// The places for which there was no thread, of all servers, in the order in which they came.
struct WaitingPlace {
  PeerThreads* threads;
  PeerPlace place;
};
constexpr std::ptrdiff_t kMostWaiting = 1024;  // Of one server.
Mutex waiting_lock;
std::list<WaitingPlace>& WaitingPlaces() VARNIX_REQUIRES(waiting_lock) {
  static NeverDestroyed<std::list<WaitingPlace>> places;  // Threads may outlive static objects.
  return places.value;
}

// Zero, or an error number.
int StartThread(void* (*body)(void*), void* argument) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, kStackSize);
  pthread_t thread;
  int error = pthread_create(&thread, &attributes, body, argument);
  if (error == EINVAL) {  // The host's thread-local objects alone need more.
    pthread_attr_setstacksize(&attributes, kLargeStackSize);
    error = pthread_create(&thread, &attributes, body, argument);
  }
  pthread_attr_destroy(&attributes);
  return error;
}

}  // namespace

// What a thread takes with it.
struct PeerThreads::Receiver {
  static std::atomic<unsigned>& Count() { return receivers; }
  static constexpr const char* kName = "vrx-recv";
  void Run() const { threads.receive_(place, active_esns); }

  PeerThreads& threads;
  PeerPlace place;
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
  const int error = TryToStartReceiver(place, std::move(active_esns));
  const bool begins_shortage = error != 0 && LetWait(place);
  StartThoseThatWait();  // There may be threads again since the last one has ended.
  if (!begins_shortage) return;
  errno = error;  // The first log hook prints it, too.
  Log(LogLevel::Error, "tblsvr.fnd.thread", "TableServer: FoundPeer::thread error %d", error);
}

int PeerThreads::TryToStartReceiver(const PeerPlace& place, std::shared_ptr<ActiveESNs> active_esns) {
  std::unique_ptr<Receiver> receiver(new (std::nothrow) Receiver{*this, place, std::move(active_esns)});
  return Start(receiver);
}

// Returns whether it is the first of all that wait.
bool PeerThreads::LetWait(const PeerPlace& place) try {
  MutexLock lock(waiting_lock);
  std::list<WaitingPlace>& places = WaitingPlaces();
  const auto is_ours = [this](const WaitingPlace& waiting) { return waiting.threads == this; };
  const auto is_this = [&](const WaitingPlace& waiting) { return is_ours(waiting) && waiting.place == place; };
  if (!active_esns_ || std::any_of(places.begin(), places.end(), is_this)) return false;
  if (std::count_if(places.begin(), places.end(), is_ours) == kMostWaiting) return false;
  places.push_back({this, place});
  return places.size() == 1;
} catch (const std::bad_alloc&) {
  return true;  // The peer's next announcement tries again.
}

// Starts as many as there is room for.
void PeerThreads::StartThoseThatWait() {
  MutexLock lock(waiting_lock);
  std::list<WaitingPlace>& places = WaitingPlaces();
  while (!places.empty()) {
    PeerThreads& threads = *places.front().threads;
    if (threads.TryToStartReceiver(places.front().place, threads.active_esns_) != 0) return;
    places.pop_front();
  }
}

int PeerThreads::StartSender(FileDescriptor& socket, unsigned address) {
  std::unique_ptr<Sender> sender(new (std::nothrow) Sender{*this, std::move(socket), address, active_esns_});
  const int error = Start(sender);
  if (sender) socket = std::move(sender->socket);
  return error;
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
    std::list<WaitingPlace>& places = WaitingPlaces();
    const auto is_ours = [this](const WaitingPlace& waiting) { return waiting.threads == this; };
    places.remove_if(is_ours);
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
  WaitingPlaces().clear();
}
