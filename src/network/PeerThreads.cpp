#include "network/PeerThreads.h"

#include <pthread.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <new>
#include <utility>

#include "logging/Log.h"
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
  std::unique_ptr<Receiver> receiver(new (std::nothrow) Receiver{*this, place, std::move(active_esns)});
  const int error = Start(receiver);
  if (error != 0) Log(LogLevel::Error, "tblsvr.fnd.thread", "TableServer: FoundPeer::thread error %d", error);
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
  --Job::Count();
  threads.EndThisThread();
  return nullptr;
}

// The last that a thread does with this object. Each thread joins the one that has ended before it, so that at most one
// waits to be joined.
void PeerThreads::EndThisThread() {
  std::optional<pthread_t> previous;
  {
    MutexLock lock(mutex_);
    previous = std::exchange(last_ended_, pthread_self());
    --running_;
    ended_cv_.notify_one();
  }
  if (previous) pthread_join(*previous, nullptr);
}

void PeerThreads::AwaitAll() {
  active_esns_.reset();
  std::optional<pthread_t> last;
  {
    MutexLock lock(mutex_);
    while (!esns_released_ || running_ > 0) ended_cv_.wait(lock.ForWaiting());
    last = std::exchange(last_ended_, std::nullopt);
  }
  if (last) pthread_join(*last, nullptr);
}
