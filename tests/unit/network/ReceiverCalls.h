// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>

#include <cerrno>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "PeerSocket.h"
#include "support/FailWith.h"
#include "support/HookedHere.h"

// The calls of this thread on the socket that it makes, as text. Whichever peer it connects to, it is `peer`.
class ReceiverCalls {
 public:
  ReceiverCalls(PeerSocket& peer, int done_descriptor) : peer_(peer), done_descriptor_(done_descriptor) {}

  std::vector<std::string> Calls() const { return calls_; }
  void Add(const std::string& call) { calls_.push_back(call); }
  // The call of this text; which of them, if there are several.
  void Fail(const std::string& call, int error, int occurrence = 1) { errors_[{call, occurrence}] = error; }
  int Socket() const { return socket_; }

  bool connects_at_once = false;
  // What comes of the polls for the connection, one after another; what is ready, after the last.
  std::deque<std::function<int(pollfd* entries)>> polls;

 private:
  // True, with errno, when it is to fail.
  bool Record(const std::string& call) {
    calls_.push_back(call);
    const auto found = errors_.find({call, ++occurrences_[call]});
    if (found == errors_.end()) return false;
    errno = found->second;
    return true;
  }
  bool IsBlocking() const { return (Hooks().fcntl.Real(socket_, F_GETFL, 0) & O_NONBLOCK) == 0; }
  std::string NameOf(const pollfd& entry) const {
    const std::string name = entry.fd == done_descriptor_ ? "done" : entry.fd == socket_ ? "socket" : "?";
    return name + (entry.events == POLLIN ? " POLLIN" : entry.events == POLLOUT ? " POLLOUT" : " ?");
  }
  static std::string NameOf(int level, int option) {
    const std::map<std::pair<int, int>, std::string> names = {
        {{SOL_SOCKET, SO_KEEPALIVE}, "SOL_SOCKET, SO_KEEPALIVE"},
        {{SOL_SOCKET, SO_ERROR}, "SOL_SOCKET, SO_ERROR"},
        {{IPPROTO_TCP, TCP_KEEPIDLE}, "IPPROTO_TCP, TCP_KEEPIDLE"},
        {{IPPROTO_TCP, TCP_KEEPINTVL}, "IPPROTO_TCP, TCP_KEEPINTVL"},
        {{IPPROTO_TCP, TCP_KEEPCNT}, "IPPROTO_TCP, TCP_KEEPCNT"},
        {{IPPROTO_TCP, TCP_USER_TIMEOUT}, "IPPROTO_TCP, TCP_USER_TIMEOUT"}};
    const auto found = names.find({level, option});
    return found == names.end() ? "?" : found->second;
  }
  static std::string NameOf(int command, long argument) {
    if (command == F_GETFL) return "F_GETFL";
    if (command == F_SETFL && argument == O_RDWR) return "F_SETFL, O_RDWR";
    if (command == F_SETFL && argument == (O_RDWR | O_NONBLOCK)) return "F_SETFL, O_RDWR | O_NONBLOCK";
    return std::to_string(command) + ", " + std::to_string(argument);
  }
  static std::string NameOf(const sockaddr* address) {
    const auto& internet = *reinterpret_cast<const sockaddr_in*>(address);
    char text[INET_ADDRSTRLEN];
    inet_ntop(internet.sin_family, &internet.sin_addr, text, sizeof text);
    return std::string(text) + ":" + std::to_string(ntohs(internet.sin_port));
  }

  PeerSocket& peer_;
  const int done_descriptor_;
  int socket_ = -1;
  std::vector<std::string> calls_;
  std::map<std::string, int> occurrences_;
  std::map<std::pair<std::string, int>, int> errors_;

  HookedHere<int(int, int, int)> make_{Hooks().socket, [this](int domain, int type, int protocol) {
                                         const bool is_tcp =
                                             domain == AF_INET && type == (SOCK_STREAM | SOCK_CLOEXEC) && protocol == 0;
                                         if (Record(is_tcp ? "socket(AF_INET, SOCK_STREAM, 0)" : "socket(?)")) {
                                           return -1;
                                         }
                                         socket_ = Hooks().socket.Real(domain, type, protocol);
                                         return socket_;
                                       }};
  HookedHere<int(int, int, int, const void*, socklen_t)> setsockopt_{
      Hooks().setsockopt, [this](int descriptor, int level, int option, const void* value, socklen_t size) {
        const std::string number = size == sizeof(int) ? std::to_string(*static_cast<const int*>(value)) : "?";
        if (descriptor == socket_ && Record("setsockopt(" + NameOf(level, option) + ", " + number + ")")) return -1;
        return Hooks().setsockopt.Real(descriptor, level, option, value, size);
      }};
  HookedHere<int(int, int, int, void*, socklen_t*)> getsockopt_{
      Hooks().getsockopt, [this](int descriptor, int level, int option, void* value, socklen_t* size) {
        if (descriptor == socket_ && Record("getsockopt(" + NameOf(level, option) + ")")) return -1;
        return Hooks().getsockopt.Real(descriptor, level, option, value, size);
      }};
  HookedHere<int(int, int, long)> fcntl_{
      Hooks().fcntl, [this](int descriptor, int command, long argument) {
        if (descriptor == socket_ && Record("fcntl(" + NameOf(command, argument) + ")")) {
          return -1;
        }
        return Hooks().fcntl.Real(descriptor, command, argument);
      }};
  HookedHere<int(int, const sockaddr*, socklen_t)> connect_{
      Hooks().connect, [this](int descriptor, const sockaddr* address, socklen_t size) {
        if (Record("connect(" + NameOf(address) + ", " + std::to_string(size) + ")")) return -1;
        const bool waits_for_result = !IsBlocking() && !connects_at_once;
        EXPECT_TRUE(peer_.Connect(descriptor) == 0 || errno == EINPROGRESS);
        return waits_for_result ? FailWith{EINPROGRESS}() : 0;
      }};
  HookedHere<int(pollfd*, nfds_t, int)> poll_{
      Hooks().poll, [this](pollfd* entries, nfds_t count, int time_out) {
        if (count != 2 || time_out < 0) return Hooks().poll.Real(entries, count, time_out);
        Record("poll(" + NameOf(entries[0]) + ", " + NameOf(entries[1]) + ", " + std::to_string(time_out) + ")");
        if (polls.empty()) return Hooks().poll.Real(entries, count, time_out);
        const auto result = std::move(polls.front());
        polls.pop_front();
        entries[0].revents = 0;
        entries[1].revents = 0;
        return result(entries);
      }};
  HookedHere<FILE*(void*, const char*, cookie_io_functions_t)> fopencookie_{
      Hooks().fopencookie, [this](void* cookie, const char* mode, cookie_io_functions_t functions) -> FILE* {
        if (Record("fopencookie")) return nullptr;
        return Hooks().fopencookie.Real(cookie, mode, functions);
      }};
  HookedHere<ssize_t(int, const void*, std::size_t, int)> send_{
      Hooks().send, [this](int descriptor, const void* bytes, std::size_t size, int flags) -> ssize_t {
        if (descriptor == socket_ && Record("send " + std::to_string(size))) return -1;
        const ssize_t sent = Hooks().send.Real(descriptor, bytes, size, flags);
        peer_.Answer();
        return sent;
      }};
  HookedHere<int(int)> close_{Hooks().close, [this](int descriptor) {
                                if (descriptor == socket_) {
                                  Record("close");
                                  socket_ = -1;
                                }
                                return Hooks().close.Real(descriptor);
                              }};
};

// What connecting to 224.1.2.3:4660 is made of.
inline const std::vector<std::string> kConnect = {"fcntl(F_GETFL)", "fcntl(F_SETFL, O_RDWR | O_NONBLOCK)",
                                                  "connect(224.1.2.3:4660, 16)"};
inline const std::vector<std::string> kWait = {"poll(done POLLIN, socket POLLOUT, 5000)"};
inline const std::vector<std::string> kCheck = {"getsockopt(SOL_SOCKET, SO_ERROR)"};
inline const std::vector<std::string> kBlockAgain = {"fcntl(F_GETFL)", "fcntl(F_SETFL, O_RDWR)"};

inline std::vector<std::string> Join(const std::vector<std::vector<std::string>>& lists) {
  std::vector<std::string> joined;
  for (const std::vector<std::string>& list : lists) joined.insert(joined.end(), list.begin(), list.end());
  return joined;
}
