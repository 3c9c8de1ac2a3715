// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "SocketPeer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "SocketAddress.h"

namespace {

constexpr std::size_t kHeaderSize = 4;

int Checked(int result, const char* what) {
  if (result >= 0) return result;
  std::perror(what);
  std::abort();
}

void Await(int done, int connection, short event) {
  pollfd entries[] = {{done, POLLIN, 0}, {connection, event, 0}};
  Checked(poll(entries, 2, -1), "poll");
}

// Calls `received` for each whole record and returns how many bytes they took.
std::size_t SplitRecords(std::string_view bytes, std::size_t name_size, const Peer::Seen& received) {
  std::size_t begin = 0;
  while (bytes.size() - begin >= kHeaderSize) {
    std::uint32_t lengths;
    std::memcpy(&lengths, bytes.data() + begin, kHeaderSize);
    lengths = ntohl(lengths);
    const std::size_t key_size = lengths >> 20;
    const std::size_t value_size = lengths & 0xFFFFF;
    if (bytes.size() - begin < kHeaderSize + key_size + value_size) break;
    const char* const key = bytes.data() + begin + kHeaderSize;
    received({key + name_size, key_size - name_size}, {key + key_size, value_size});
    begin += kHeaderSize + key_size + value_size;
  }
  return begin;
}

}  // namespace

SocketPeer::SocketPeer(const PeerSettings& settings) : settings_(settings) { Checked(pipe(done_), "pipe"); }

void SocketPeer::StartServing() {
  if (!settings_.written.empty()) std::thread(&SocketPeer::Accept, this).detach();
}

void SocketPeer::Accept() {
  const int listening = Checked(socket(AF_INET, SOCK_STREAM, 0), "socket");
  const int on = 1;
  setsockopt(listening, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const sockaddr_in place = SocketAddress(settings_.written, INADDR_ANY);
  Checked(bind(listening, reinterpret_cast<const sockaddr*>(&place), sizeof place), "bind");
  Checked(listen(listening, 100), "listen");
  for (;;) {
    const int connection = Checked(accept(listening, nullptr, nullptr), "accept");
    std::thread([this, connection] {
      Stream stream(connection, done_[0]);
      SendRows(stream);
    }).detach();
  }
}

int SocketPeer::Connect() const {
  const sockaddr_in place = SocketAddress(settings_.watched, inet_addr(settings_.address.c_str()));
  for (;;) {
    const int connection = Checked(socket(AF_INET, SOCK_STREAM, 0), "socket");
    if (connect(connection, reinterpret_cast<const sockaddr*>(&place), sizeof place) == 0) return connection;
    close(connection);
    usleep(1000);
  }
}

void SocketPeer::Receive(const Seen& received) const {
  const int connection = Connect();
  std::string pending;
  char buffer[8192];
  for (;;) {
    Await(done_[0], connection, POLLIN);
    const ssize_t size = Checked(static_cast<int>(recv(connection, buffer, sizeof buffer, 0)), "recv");
    if (size == 0) std::_Exit(1);
    pending.append(buffer, static_cast<std::size_t>(size));
    pending.erase(0, SplitRecords(pending, 1 + settings_.watched.size(), received));
  }
}

std::string SocketPeer::CombinedKey(const std::string& key) const {
  std::string combined;
  combined.reserve(1 + settings_.written.size() + key.size());
  combined += static_cast<char>(settings_.written.size());
  combined += settings_.written;
  combined += key;
  return combined;
}

std::string SocketPeer::Record(std::string_view combined_key, std::string_view value) {
  const std::uint32_t lengths = htonl(static_cast<std::uint32_t>(combined_key.size() << 20 | value.size()));
  std::string record;
  record.reserve(kHeaderSize + combined_key.size() + value.size());
  record.append(reinterpret_cast<const char*>(&lengths), kHeaderSize);
  record += combined_key;
  record += value;
  return record;
}

SocketPeer::Stream::~Stream() { close(connection_); }

bool SocketPeer::Stream::Send(const std::string& record, bool more) {
  if (more) SetDelay(true);
  Await(done_, connection_, POLLOUT);
  if (send(connection_, record.data(), record.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) return false;
  pollfd end = {connection_, POLLIN, 0};
  if (poll(&end, 1, 0) != 0) return false;
  if (!more) SetDelay(false);
  return true;
}

void SocketPeer::Stream::SetDelay(bool delayed) {
  if (delayed == delayed_) return;
  delayed_ = delayed;
  const int no_delay = delayed ? 0 : 1;
  setsockopt(connection_, IPPROTO_TCP, TCP_NODELAY, &no_delay, sizeof no_delay);
}
