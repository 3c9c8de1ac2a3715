#include "network/TableServer.h"

#include <arpa/inet.h>
#include <poll.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <exception>
#include <memory>
#include <new>
#include <utility>

#include "logging/Log.h"
#include "names/CombinedKey.h"
#include "names/InternalTableName.h"
#include "network/ActiveESNs.h"
#include "network/Discovery.h"
#include "network/ReceiveLoop.h"
#include "network/SystemCalls.h"
#include "network/TableSender.h"
#include "tables/LocalTable.h"

using Varnix::LogLevel;

namespace {

constexpr int kPauseBetweenRefusals_ms = 100;
// More than a group has members; a flood of announcements or connections shall not fill the memory with threads.
constexpr rlim_t kMostPeers = 1024;
constexpr std::chrono::milliseconds kPauseWithoutMemory(100);
// Ample for our frames and a log hook, and not the usual 8 MiB each: a 32-bit process has no room for hundreds of
// those.
constexpr std::size_t kPeerStackSize = std::size_t{256} * 1024;
constexpr std::size_t kLargeStackSize = std::size_t{8} * 1024 * 1024;

sockaddr_in MakeBroadcastAddress(unsigned address) {
  sockaddr_in broadcast{};
  broadcast.sin_family = AF_INET;
  broadcast.sin_port = htons(kDiscoveryPort);
  broadcast.sin_addr.s_addr = address;
  return broadcast;
}

// False, with errno, when there is no thread or no memory to be had.
template <class Body>
bool StartDetached(Body body) {
  std::unique_ptr<Body> owned(new (std::nothrow) Body(std::move(body)));
  if (!owned) {
    errno = ENOMEM;
    return false;
  }
  const auto run = [](void* started) noexcept -> void* {
    (*std::unique_ptr<Body>(static_cast<Body*>(started)))();
    return nullptr;
  };
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_attr_setstacksize(&attributes, kPeerStackSize);
  pthread_t thread;
  int error = pthread_create(&thread, &attributes, run, owned.get());
  if (error == EINVAL) {  // The host's thread-local objects alone need more.
    pthread_attr_setstacksize(&attributes, kLargeStackSize);
    error = pthread_create(&thread, &attributes, run, owned.get());
  }
  pthread_attr_destroy(&attributes);
  errno = error;
  if (errno != 0) return false;
  owned.release();  // NOLINT(bugprone-unused-return-value): the thread has it.
  return true;
}

// False when there is no memory to be had.
bool SetUnlogged(LocalTable& table, const Varnix::Row& row) try {
  table.SetUnlogged(row);
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

// Peers of each direction that the process may have at once. Each has a descriptor: no flood may take them all, because
// the process ends where it can make no socket.
rlim_t MostPeers() {
  rlimit descriptors{RLIM_INFINITY, RLIM_INFINITY};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  return std::min(kMostPeers, descriptors.rlim_cur / 8 * 3);
}

// The threads of all servers, because descriptors are the process's.
std::atomic<unsigned> receivers{0};
std::atomic<unsigned> senders{0};

// False, with errno, when there is no thread to be had, or `count` of them are enough already.
template <class Body>
bool StartCounted(std::atomic<unsigned>& count, Body body) {
  auto counted = [&count, body = std::move(body)]() mutable {
    body();
    --count;
  };
  if (++count > MostPeers()) {
    errno = EAGAIN;
  } else if (StartDetached(std::move(counted))) {
    return true;
  }
  --count;
  return false;
}

bool IsOutOfResources(int error) { return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM; }

}  // namespace

TableServer::TableServer(const std::string& uid, const std::string& database,
                         const std::shared_ptr<Varnix::Table>& receive_table,
                         const std::shared_ptr<Varnix::Table>& send_table, const std::string& group,
                         unsigned broadcast_address)
    : uid_(uid),
      database_(database),
      group_(group),
      receive_table_(receive_table),
      send_table_(send_table),
      done_table_(LocalTable::Make(InternalTableName("ts_done", database))),
      broadcast_addr_(MakeBroadcastAddress(broadcast_address)) {
  const PrintableKey printable(uid_);
  Log(LogLevel::Debug, "tblsvr.ctor", "TableServer for %.*s::%s::%s(%p) ctor", printable.name_length, printable.name,
      printable.key, database_.c_str(), static_cast<void*>(this));
  listen_fd_ = OpenListeningSocket(listen_port_);
  discover_fd_ = OpenDiscoverySocket();
  done_pipe_ = OpenDonePipe();
  wake_pipe_ = OpenWakePipe();
  try {
    StartThreads();
  } catch (...) {
    Stop();
    throw;
  }
}

void TableServer::StartThreads() {
  active_esns_ = std::make_shared<ActiveESNs>([this] {
    MutexLock lock(mutex_);
    esns_released_ = true;
    released_cv_.notify_one();
  });
  // Made here, so that want of memory is this call's failure: on a thread of ours it would end the process.
  discover_thread_ = std::thread([discovery = std::make_unique<Discovery>(*this)] { discovery->Run(); });
  accept_thread_ = std::thread(&TableServer::Accept, this);
}

TableServer::~TableServer() {
  try {
    if (!stopped_) Stop();
  } catch (...) {
    // The hook threw; the server has stopped all the same, and nobody is there to be told.
  }
}

void TableServer::Stop() {
  stopped_ = true;
  // Every step is taken, whatever the log hook does: no thread may be left that uses the server.
  std::exception_ptr thrown;
  try {
    SignalDone();
  } catch (...) {
    thrown = std::current_exception();
  }
  try {
    SetDoneRow();
  } catch (...) {
    thrown = std::current_exception();
  }
  JoinThreads();
  AwaitPeerThreads();
  CloseDescriptors();
  if (thrown) std::rethrow_exception(thrown);
}

void TableServer::SignalDone() {
  if (write(done_pipe_.write_end, "D", 1) == 1) return;
  Log(LogLevel::Error, "tblsvr.dest", "TableServer: pipe write fail error %d", errno);
}

void TableServer::SetDoneRow() {
  const Varnix::Row done("done", "y");
  try {
    done_table_->Set(done);
  } catch (...) {
    // An idle sender learns of the stop in no other way.
    while (!SetUnlogged(*done_table_, done)) std::this_thread::sleep_for(kPauseWithoutMemory);
    throw;
  }
}

void TableServer::JoinThreads() {
  if (discover_thread_.joinable()) discover_thread_.join();
  if (accept_thread_.joinable()) accept_thread_.join();
}

// Every peer thread holds the ActiveESNs: when it is released, the last of them has finished.
void TableServer::AwaitPeerThreads() {
  if (!active_esns_) return;
  active_esns_.reset();
  MutexLock lock(mutex_);
  while (!esns_released_) released_cv_.wait(lock.ForWaiting());
  esns_released_ = false;
}

void TableServer::CloseDescriptors() {
  close(listen_fd_);
  close(discover_fd_);
  close(done_pipe_.read_end);
  close(done_pipe_.write_end);
  close(wake_pipe_.read_end);
  close(wake_pipe_.write_end);
}

void TableServer::NetworkChanged() {
  if (write(wake_pipe_.write_end, "W", 1) == 1) return;
  Log(LogLevel::Error, "tblsvr.nwc", "TableServer: pipe write network changed %d", errno);
}

std::shared_ptr<Varnix::Table> TableServer::GetDoneTable() const { return done_table_; }

void TableServer::Accept() {
  pollfd entries[] = {{done_pipe_.read_end, POLLIN, 0}, {listen_fd_, POLLIN, 0}};
  for (;;) {
    if (poll(entries, 2, -1) < 0) {
      if (errno == EINTR) continue;
      LogErrnoAndAbort("tblsvr.acc.poll", "TableServer: Accept::poll error %d");
    }
    if (entries[0].revents != 0) return;
    if (entries[1].revents != 0) AcceptConnection();
  }
}

void TableServer::AcceptConnection() {
  sockaddr_in peer{};
  socklen_t size = sizeof peer;
  const int socket = accept(listen_fd_, reinterpret_cast<sockaddr*>(&peer), &size);
  if (socket >= 0) {
    CloseOnExec(socket);
    IncomingConnection(socket, ntohl(peer.sin_addr.s_addr));
    return;
  }
  const int error = errno;
  Log(LogLevel::Error, "tblsvr.acc.acc", "TableServer: Accept::accept error %d", error);
  // The connection is still waiting and accepting it would fail at once again: leave the processor to others for a
  // while.
  if (IsOutOfResources(error)) PauseAccepting();
}

void TableServer::PauseAccepting() {
  pollfd done = {done_pipe_.read_end, POLLIN, 0};
  poll(&done, 1, kPauseBetweenRefusals_ms);
}

void TableServer::FoundPeer(unsigned address, unsigned short port, std::shared_ptr<ActiveESNs> active_esns) {
  const bool started = StartCounted(receivers, [this, address, port, active_esns = std::move(active_esns)] {
    ReceiveLoop(*this, address, port, active_esns).Run();
  });
  if (started) return;
  Log(LogLevel::Error, "tblsvr.fnd.thread", "TableServer: FoundPeer::thread error %d", errno);
}

void TableServer::IncomingConnection(int socket, unsigned address) {
  const bool started = StartCounted(
      senders, [this, socket, address, active_esns = active_esns_] { SendTable(*this, socket, address, active_esns); });
  if (started) return;
  Log(LogLevel::Error, "tblsvr.acc.thread", "TableServer: IncomingConnection::thread error %d", errno);
  close(socket);
  PauseAccepting();  // A flood of connections shall not become a flood of these lines.
}
