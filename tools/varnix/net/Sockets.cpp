// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "net/Sockets.h"

#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace {

constexpr int kBacklog = 128;
constexpr rlim_t kMostDescriptors = 4096;
constexpr int kMostSilenceMs = 4000;

int Checked(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

// What these options are for works worse without them, and works.
void SetOption(const FileDescriptor& socket, int level, int name, int value) {
  setsockopt(socket.Get(), level, name, &value, sizeof value);
}

int Bind(const FileDescriptor& socket, const Place& place) {
  const sockaddr_in address = ToSocketAddress(place);
  return bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0 : errno;
}

FileDescriptor OpenSocket(int type) {
  return FileDescriptor(Checked(socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), "socket"));
}

// The result is the port.
std::uint16_t BeginListening(const FileDescriptor& socket) {
  Checked(listen(socket.Get(), kBacklog), "listen");
  sockaddr_in address{};
  socklen_t size = sizeof address;
  Checked(getsockname(socket.Get(), reinterpret_cast<sockaddr*>(&address), &size), "getsockname");
  return ToPlace(address).port;
}

// Where nobody listens at a port of the own device, TCP may give the connecting socket this very port.
bool IsConnectedToItself(const FileDescriptor& socket) {
  sockaddr_in here{}, there{};
  socklen_t here_size = sizeof here, there_size = sizeof there;
  getsockname(socket.Get(), reinterpret_cast<sockaddr*>(&here), &here_size);
  getpeername(socket.Get(), reinterpret_cast<sockaddr*>(&there), &there_size);
  return ToPlace(here) == ToPlace(there);
}

}  // namespace

FileDescriptor OpenBroadcastSocket() {
  FileDescriptor socket = OpenSocket(SOCK_DGRAM);
  SetOption(socket, SOL_SOCKET, SO_BROADCAST, 1);
  SetOption(socket, SOL_SOCKET, SO_REUSEADDR, 1);
  return socket;
}

int BindToDiscoveryPort(const FileDescriptor& socket) { return Bind(socket, {INADDR_ANY, kDiscoveryPort}); }

FileDescriptor Listen(std::uint16_t& port) {
  FileDescriptor socket = OpenSocket(SOCK_STREAM);
  port = BeginListening(socket);
  return socket;
}

FileDescriptor ListenAt(const Place& place, std::uint16_t& port) {
  FileDescriptor socket = OpenSocket(SOCK_STREAM);
  SetOption(socket, SOL_SOCKET, SO_REUSEADDR, 1);  // Connections that have just ended keep nobody out.
  const int error = Bind(socket, place);
  if (error != 0) throw std::system_error(error, std::generic_category(), "cannot listen at " + PlaceText(place));
  port = BeginListening(socket);
  return socket;
}

FileDescriptor BeginConnecting(const Place& place, int& error) {
  FileDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  error = errno;
  if (socket.Get() < 0) return socket;
  const sockaddr_in address = ToSocketAddress(place);
  const bool begun = connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  error = begun || errno == EINPROGRESS ? 0 : errno;
  return socket;
}

int FinishConnecting(const FileDescriptor& socket) {
  int error = 0;
  socklen_t size = sizeof error;
  if (getsockopt(socket.Get(), SOL_SOCKET, SO_ERROR, &error, &size) != 0) return errno;
  return error == 0 && IsConnectedToItself(socket) ? ECONNREFUSED : error;
}

void KeepAlive(const FileDescriptor& socket) {
  SetOption(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
  SetOption(socket, IPPROTO_TCP, TCP_KEEPIDLE, 1);
  SetOption(socket, IPPROTO_TCP, TCP_KEEPINTVL, 1);
  SetOption(socket, IPPROTO_TCP, TCP_KEEPCNT, 3);
}

void LimitSilence(const FileDescriptor& socket) { SetOption(socket, IPPROTO_TCP, TCP_USER_TIMEOUT, kMostSilenceMs); }

void SendAtOnce(const FileDescriptor& socket) { SetOption(socket, IPPROTO_TCP, TCP_NODELAY, 1); }

void LimitSendBuffer(const FileDescriptor& socket, int size_bytes) {
  SetOption(socket, SOL_SOCKET, SO_SNDBUF, size_bytes);
}

bool IsOwnAddress(std::uint32_t address) {
  const FileDescriptor probe(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  return Bind(probe, {address, 0}) == 0;
}

void RaiseDescriptorLimit() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_cur >= kMostDescriptors) return;
  limit.rlim_cur = std::min(limit.rlim_max, kMostDescriptors);
  setrlimit(RLIMIT_NOFILE, &limit);
}

std::size_t MostDescriptors() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  return static_cast<std::size_t>(std::min(limit.rlim_cur, kMostDescriptors));
}
