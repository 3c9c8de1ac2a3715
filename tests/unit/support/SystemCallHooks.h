// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

// One call that a test drives. While no function is set, the real call is made. A function that is set decides for
// every thread of the process; it may make the real call itself, by `Real`, and reports failures as the real one does,
// by errno.
template <class Signature>
class Hook;

template <class Result, class... Arguments>
class Hook<Result(Arguments...)> {
 public:
  using Function = std::function<Result(Arguments...)>;

  explicit Hook(Function real) : real_(std::move(real)) {}

  void Set(Function function) {
    const std::lock_guard<std::mutex> lock(mutex_);
    function_ = std::make_shared<Function>(std::move(function));
  }
  void Reset() {
    const std::lock_guard<std::mutex> lock(mutex_);
    function_.reset();
  }
  Result Real(Arguments... arguments) const { return real_(arguments...); }
  Result Call(Arguments... arguments) const {
    std::shared_ptr<Function> function;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      function = function_;
    }
    return function ? (*function)(arguments...) : real_(arguments...);
  }

 private:
  const Function real_;
  mutable std::mutex mutex_;
  std::shared_ptr<Function> function_;
};

// The system calls of the network code, the steady clock and the start of a std::thread, all of this test program, its
// own code included.
struct SystemCallHooks {
  Hook<int(int domain, int type, int protocol)> socket;
  Hook<int(int descriptor, const sockaddr* address, socklen_t size)> bind;
  Hook<int(int descriptor, int backlog)> listen;
  Hook<int(int descriptor, sockaddr* address, socklen_t* size, int flags)> accept4;
  Hook<int(int descriptor, const sockaddr* address, socklen_t size)> connect;
  Hook<int(pollfd* entries, nfds_t count, int time_out)> poll;
  Hook<ssize_t(int descriptor, const void* bytes, std::size_t size, int flags)> send;
  Hook<ssize_t(int descriptor, const void* bytes, std::size_t size, int flags, const sockaddr* to, socklen_t to_size)>
      sendto;
  Hook<ssize_t(int descriptor, void* buffer, std::size_t size, int flags)> recv;
  Hook<ssize_t(int descriptor, void* buffer, std::size_t size, int flags, sockaddr* from, socklen_t* from_size)>
      recvfrom;
  Hook<ssize_t(int descriptor, void* buffer, std::size_t size)> read;
  Hook<ssize_t(int descriptor, const void* bytes, std::size_t size)> write;
  Hook<int(int descriptor, int command, long argument)> fcntl;
  Hook<int(int* ends, int flags)> pipe2;
  Hook<int(int descriptor, int level, int option, const void* value, socklen_t size)> setsockopt;
  Hook<int(int descriptor, int level, int option, void* value, socklen_t* size)> getsockopt;
  Hook<int(int descriptor, sockaddr* address, socklen_t* size)> getsockname;
  Hook<FILE*(void* cookie, const char* mode, cookie_io_functions_t functions)> fopencookie;
  Hook<int(int descriptor)> close;
  Hook<std::chrono::steady_clock::time_point()> now;
  // Runs before a thread is started, by std::thread or pthread_create, and keeps it from starting when it throws
  // std::system_error or std::bad_alloc.
  Hook<void()> start_thread;
  // Of a thread that pthread_create has started; std::thread joins its own.
  Hook<int(pthread_t thread, void** result)> pthread_join;
};

SystemCallHooks& Hooks();

// Sets a hook for the life of this object.
template <class Signature>
class Hooked {
 public:
  Hooked(Hook<Signature>& hook, typename Hook<Signature>::Function function) : hook_(hook) {
    hook_.Set(std::move(function));
  }
  ~Hooked() { hook_.Reset(); }
  Hooked(const Hooked&) = delete;
  Hooked& operator=(const Hooked&) = delete;

 private:
  Hook<Signature>& hook_;
};
