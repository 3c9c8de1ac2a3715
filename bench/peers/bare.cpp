// The limit of what sockets allow: records of the same layout, sent and received with the system calls that the library
// makes for each, and nothing around them. One record a send: poll for room, send, poll for the end of the connection;
// the receiver polls and takes 8,192 bytes at a time.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

#include "Peer.h"
#include "SocketAddress.h"

namespace {

constexpr std::size_t kHeaderSize = 4;

int Checked(int result, const char* what) {
  if (result >= 0) return result;
  std::perror(what);
  std::abort();
}

class BarePeer final : public Peer {
 public:
  explicit BarePeer(const PeerSettings& settings) : settings_(settings) {
    Checked(pipe(done_), "pipe");
    if (!settings.written.empty()) std::thread(&BarePeer::Accept, this).detach();
  }

  void Set(const std::string& key, const std::string& value) override {
    const std::size_t key_size = 1 + settings_.written.size() + key.size();
    const std::uint32_t lengths = htonl(static_cast<std::uint32_t>(key_size << 20 | value.size()));
    std::string record(reinterpret_cast<const char*>(&lengths), kHeaderSize);
    record += static_cast<char>(settings_.written.size());
    record += settings_.written;
    record += key;
    record += value;
    const std::lock_guard<std::mutex> lock(mutex_);
    records_.push_back(std::move(record));
    added_.notify_all();
  }

  [[noreturn]] void Watch(const Seen& seen) override {
    const int connection = Connect();
    std::string pending;
    std::size_t begin = 0;
    char buffer[8192];
    for (;;) {
      Await(connection, POLLIN);
      const ssize_t size = Checked(static_cast<int>(recv(connection, buffer, sizeof buffer, 0)), "recv");
      if (size == 0) std::_Exit(1);
      pending.erase(0, std::exchange(begin, 0));
      pending.append(buffer, static_cast<std::size_t>(size));
      while (pending.size() - begin >= kHeaderSize) {
        std::uint32_t lengths;
        std::memcpy(&lengths, pending.data() + begin, kHeaderSize);
        lengths = ntohl(lengths);
        const std::size_t key_size = lengths >> 20;
        const std::size_t value_size = lengths & 0xFFFFF;
        if (pending.size() - begin < kHeaderSize + key_size + value_size) break;
        const char* const key = pending.data() + begin + kHeaderSize;
        const std::size_t name_size = 1 + settings_.watched.size();
        seen({key + name_size, key_size - name_size}, {key + key_size, value_size});
        begin += kHeaderSize + key_size + value_size;
      }
    }
  }

 private:
  int Connect() const {
    const sockaddr_in place = SocketAddress(settings_.watched, inet_addr(settings_.address.c_str()));
    for (;;) {
      const int connection = Checked(socket(AF_INET, SOCK_STREAM, 0), "socket");
      if (connect(connection, reinterpret_cast<const sockaddr*>(&place), sizeof place) == 0) return connection;
      close(connection);
      usleep(1000);
    }
  }

  void Accept() {
    const int listening = Checked(socket(AF_INET, SOCK_STREAM, 0), "socket");
    const int on = 1;
    setsockopt(listening, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in place = SocketAddress(settings_.written, INADDR_ANY);
    Checked(bind(listening, reinterpret_cast<const sockaddr*>(&place), sizeof place), "bind");
    Checked(listen(listening, 100), "listen");
    for (;;) {
      std::thread(&BarePeer::Send, this, Checked(accept(listening, nullptr, nullptr), "accept")).detach();
    }
  }

  void Send(int connection) {
    bool delayed = true;
    for (std::size_t next = 0;; ++next) {
      const std::string* record;
      bool more;
      {
        std::unique_lock<std::mutex> lock(mutex_);
        added_.wait(lock, [&] { return next < records_.size(); });
        record = &records_[next];
        more = next + 1 < records_.size();
      }
      if (more && !delayed) SetDelay(connection, delayed = true);
      Await(connection, POLLOUT);
      if (send(connection, record->data(), record->size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) return;
      pollfd end = {connection, POLLIN, 0};
      if (poll(&end, 1, 0) != 0) return;
      if (!more && delayed) SetDelay(connection, delayed = false);
    }
  }

  static void SetDelay(int connection, bool delayed) {
    const int no_delay = delayed ? 0 : 1;
    setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &no_delay, sizeof no_delay);
  }

  void Await(int connection, short event) const {
    pollfd entries[] = {{done_[0], POLLIN, 0}, {connection, event, 0}};
    Checked(poll(entries, 2, -1), "poll");
  }

  const PeerSettings settings_;
  int done_[2];
  std::mutex mutex_;
  std::condition_variable added_;
  std::deque<std::string> records_;
};

}  // namespace

std::unique_ptr<Peer> MakePeer(const PeerSettings& settings) { return std::make_unique<BarePeer>(settings); }
