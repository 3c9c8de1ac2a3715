// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>

#include <algorithm>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "support/SystemCallHooks.h"

// Records the calls that make, set up, write to and close the descriptors of a server, as text:
// "socket(AF_INET, SOCK_STREAM, 0) = #1". Descriptors are numbered as they are made, calls on any other are left out.
// A socket that asks for the discovery port gets another, so that no other server of this machine is heard.
class CallRecorder {
 public:
  std::vector<std::string> Calls() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }
  void Clear() {
    const std::lock_guard<std::mutex> lock(mutex_);
    calls_.clear();
  }
  void Add(const std::string& call) {
    std::function<void(const std::string&)> on_call;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      calls_.push_back(call);
      on_call = on_call_;
    }
    if (on_call) on_call(call);
  }
  // What happens just before each call that is recorded, or just after it if it makes a descriptor.
  void OnCall(std::function<void(const std::string&)> on_call) {
    const std::lock_guard<std::mutex> lock(mutex_);
    on_call_ = std::move(on_call);
  }
  // The descriptor of this number; it may be closed by now.
  int Descriptor(std::size_t number) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return number <= made_.size() ? made_[number - 1] : -1;
  }
  std::size_t Made() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return made_.size();
  }

 private:
  std::string NumberOf(int descriptor) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto open = open_.find(descriptor);
    return open == open_.end() ? "" : "#" + std::to_string(open->second);
  }
  std::string Enter(int descriptor) {
    const std::lock_guard<std::mutex> lock(mutex_);
    made_.push_back(descriptor);
    open_[descriptor] = made_.size();
    return "#" + std::to_string(made_.size());
  }
  void AddCallOn(int descriptor, const std::string& name, const std::string& arguments) {
    const std::string number = NumberOf(descriptor);
    if (!number.empty()) Add(name + "(" + number + arguments + ")");
  }

  static std::string NameOfType(int type) {
    if ((type & SOCK_CLOEXEC) == 0) return std::to_string(type) + " that is not closed on exec";
    const int kind = type & ~SOCK_CLOEXEC;
    return kind == SOCK_STREAM ? "SOCK_STREAM" : kind == SOCK_DGRAM ? "SOCK_DGRAM" : std::to_string(type);
  }
  static std::string NameOfOption(int level, int option) {
    if (level != SOL_SOCKET) return std::to_string(level) + ", " + std::to_string(option);
    const std::string name = option == SO_BROADCAST   ? "SO_BROADCAST"
                             : option == SO_REUSEADDR ? "SO_REUSEADDR"
                                                      : std::to_string(option);
    return "SOL_SOCKET, " + name;
  }
  static std::string NameOfCommand(int command, long argument) {
    return std::to_string(command) + ", " + std::to_string(argument);
  }
  static std::string NameOfAddress(const sockaddr* address) {
    const auto& internet = *reinterpret_cast<const sockaddr_in*>(address);
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &internet.sin_addr, text, sizeof text);
    return std::string(text) + ":" + std::to_string(ntohs(internet.sin_port));
  }

  mutable std::mutex mutex_;
  std::vector<std::string> calls_;
  std::function<void(const std::string&)> on_call_;
  std::vector<int> made_;
  std::map<int, std::size_t> open_;

  Hooked<int(int, int, int)> socket_{Hooks().socket, [this](int domain, int type, int protocol) {
                                       const int made = Hooks().socket.Real(domain, type, protocol);
                                       Add("socket(" + (domain == AF_INET ? "AF_INET" : std::to_string(domain)) + ", " +
                                           NameOfType(type) + ", " + std::to_string(protocol) + ") = " + Enter(made));
                                       return made;
                                     }};
  Hooked<int(int, const sockaddr*, socklen_t)> bind_{
      Hooks().bind, [this](int descriptor, const sockaddr* address, socklen_t size) {
        AddCallOn(descriptor, "bind", ", " + NameOfAddress(address) + ", " + std::to_string(size));
        auto bound_to = *reinterpret_cast<const sockaddr_in*>(address);
        if (bound_to.sin_port == htons(1975)) bound_to.sin_port = 0;
        return Hooks().bind.Real(descriptor, reinterpret_cast<const sockaddr*>(&bound_to), size);
      }};
  Hooked<int(int, sockaddr*, socklen_t*)> getsockname_{
      Hooks().getsockname, [this](int descriptor, sockaddr* address, socklen_t* size) {
        AddCallOn(descriptor, "getsockname", ", " + std::to_string(*size));
        return Hooks().getsockname.Real(descriptor, address, size);
      }};
  Hooked<int(int, int)> listen_{Hooks().listen, [this](int descriptor, int backlog) {
                                  AddCallOn(descriptor, "listen", ", " + std::to_string(backlog));
                                  return Hooks().listen.Real(descriptor, backlog);
                                }};
  Hooked<int(int, int, int, const void*, socklen_t)> setsockopt_{
      Hooks().setsockopt, [this](int descriptor, int level, int option, const void* value, socklen_t size) {
        const std::string number = size == sizeof(int) ? std::to_string(*static_cast<const int*>(value)) : "?";
        AddCallOn(descriptor, "setsockopt", ", " + NameOfOption(level, option) + ", " + number);
        return Hooks().setsockopt.Real(descriptor, level, option, value, size);
      }};
  Hooked<int(int*, int)> pipe2_{Hooks().pipe2, [this](int* ends, int flags) {
                                  const int result = Hooks().pipe2.Real(ends, flags);
                                  const std::string read_end = Enter(ends[0]);
                                  Add(std::string("pipe2(") + (flags == O_CLOEXEC ? "O_CLOEXEC" : "?") +
                                      ") = " + read_end + ", " + Enter(ends[1]));
                                  return result;
                                }};
  Hooked<int(int, int, long)> fcntl_{Hooks().fcntl, [this](int descriptor, int command, long argument) {
                                       AddCallOn(descriptor, "fcntl", ", " + NameOfCommand(command, argument));
                                       return Hooks().fcntl.Real(descriptor, command, argument);
                                     }};
  Hooked<ssize_t(int, const void*, std::size_t)> write_{
      Hooks().write, [this](int descriptor, const void* bytes, std::size_t size) {
        AddCallOn(descriptor, "write", ", " + std::string(static_cast<const char*>(bytes), size));
        return Hooks().write.Real(descriptor, bytes, size);
      }};
  Hooked<int(int, sockaddr*, socklen_t*, int)> accept4_{
      Hooks().accept4, [this](int descriptor, sockaddr* address, socklen_t* size, int flags) {
        const std::string number = NumberOf(descriptor);
        const std::string room = std::to_string(*size);
        const int accepted = Hooks().accept4.Real(descriptor, address, size, flags);
        if (!number.empty() && accepted >= 0) {
          Add("accept4(" + number + ", " + room + ", " + (flags == SOCK_CLOEXEC ? "SOCK_CLOEXEC" : "?") +
              ") = " + Enter(accepted));
        }
        return accepted;
      }};
  Hooked<int(int)> close_{Hooks().close, [this](int descriptor) {
                            AddCallOn(descriptor, "close", "");
                            {
                              const std::lock_guard<std::mutex> lock(mutex_);
                              open_.erase(descriptor);
                            }
                            return Hooks().close.Real(descriptor);
                          }};
};
