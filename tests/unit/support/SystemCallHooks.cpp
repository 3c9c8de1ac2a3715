// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "support/SystemCallHooks.h"

#include <pthread.h>

#include <cerrno>
#include <cstdarg>
#include <new>
#include <system_error>
#include <thread>

// The linker's --wrap sends each call of this program to __wrap_X and leaves the real one as __real_X.

using Now = std::chrono::steady_clock::time_point;
using ThreadState = std::unique_ptr<std::thread::_State>;

extern "C" {

int __real_socket(int, int, int);
int __real_bind(int, const sockaddr*, socklen_t);
int __real_listen(int, int);
int __real_accept4(int, sockaddr*, socklen_t*, int);
int __real_connect(int, const sockaddr*, socklen_t);
int __real_poll(pollfd*, nfds_t, int);
ssize_t __real_send(int, const void*, std::size_t, int);
ssize_t __real_sendto(int, const void*, std::size_t, int, const sockaddr*, socklen_t);
ssize_t __real_recv(int, void*, std::size_t, int);
ssize_t __real_recvfrom(int, void*, std::size_t, int, sockaddr*, socklen_t*);
ssize_t __real_read(int, void*, std::size_t);
ssize_t __real_write(int, const void*, std::size_t);
int __real_fcntl(int, int, ...);
int __real_pipe2(int*, int);
int __real_setsockopt(int, int, int, const void*, socklen_t);
int __real_getsockopt(int, int, int, void*, socklen_t*);
int __real_getsockname(int, sockaddr*, socklen_t*);
FILE* __real_fopencookie(void*, const char*, cookie_io_functions_t);
int __real_close(int);
int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __real_pthread_join(pthread_t, void**);
#if defined(__clang__)
#pragma clang diagnostic ignored "-Wreturn-type-c-linkage"
#endif
Now __real__ZNSt6chrono3_V212steady_clock3nowEv();
void __real__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(std::thread*,
                                                                                                  ThreadState,
                                                                                                  void (*)());

}  // extern "C"

SystemCallHooks& Hooks() {
  // Never destroyed: threads may outlive main(). By pointer, because addresses of Thumb functions are odd: to the
  // undefined-behaviour sanitizer a reference to one is misaligned.
  static SystemCallHooks& hooks =
      *new SystemCallHooks{decltype(SystemCallHooks::socket)(&__real_socket),
                           decltype(SystemCallHooks::bind)(&__real_bind),
                           decltype(SystemCallHooks::listen)(&__real_listen),
                           decltype(SystemCallHooks::accept4)(&__real_accept4),
                           decltype(SystemCallHooks::connect)(&__real_connect),
                           decltype(SystemCallHooks::poll)(&__real_poll),
                           decltype(SystemCallHooks::send)(&__real_send),
                           decltype(SystemCallHooks::sendto)(&__real_sendto),
                           decltype(SystemCallHooks::recv)(&__real_recv),
                           decltype(SystemCallHooks::recvfrom)(&__real_recvfrom),
                           decltype(SystemCallHooks::read)(&__real_read),
                           decltype(SystemCallHooks::write)(&__real_write),
                           decltype(SystemCallHooks::fcntl)(&__real_fcntl),
                           decltype(SystemCallHooks::pipe2)(&__real_pipe2),
                           decltype(SystemCallHooks::setsockopt)(&__real_setsockopt),
                           decltype(SystemCallHooks::getsockopt)(&__real_getsockopt),
                           decltype(SystemCallHooks::getsockname)(&__real_getsockname),
                           decltype(SystemCallHooks::fopencookie)(&__real_fopencookie),
                           decltype(SystemCallHooks::close)(&__real_close),
                           decltype(SystemCallHooks::now)(&__real__ZNSt6chrono3_V212steady_clock3nowEv),
                           decltype(SystemCallHooks::start_thread)([] {}),
                           decltype(SystemCallHooks::pthread_join)(&__real_pthread_join)};
  return hooks;
}

extern "C" {

int __wrap_socket(int domain, int type, int protocol) { return Hooks().socket.Call(domain, type, protocol); }

int __wrap_bind(int descriptor, const sockaddr* address, socklen_t size) {
  return Hooks().bind.Call(descriptor, address, size);
}

int __wrap_listen(int descriptor, int backlog) { return Hooks().listen.Call(descriptor, backlog); }

int __wrap_accept4(int descriptor, sockaddr* address, socklen_t* size, int flags) {
  return Hooks().accept4.Call(descriptor, address, size, flags);
}

int __wrap_connect(int descriptor, const sockaddr* address, socklen_t size) {
  return Hooks().connect.Call(descriptor, address, size);
}

int __wrap_poll(pollfd* entries, nfds_t count, int time_out) { return Hooks().poll.Call(entries, count, time_out); }

ssize_t __wrap_send(int descriptor, const void* bytes, std::size_t size, int flags) {
  return Hooks().send.Call(descriptor, bytes, size, flags);
}

ssize_t __wrap_sendto(int descriptor, const void* bytes, std::size_t size, int flags, const sockaddr* to,
                      socklen_t to_size) {
  return Hooks().sendto.Call(descriptor, bytes, size, flags, to, to_size);
}

ssize_t __wrap_recv(int descriptor, void* buffer, std::size_t size, int flags) {
  return Hooks().recv.Call(descriptor, buffer, size, flags);
}

ssize_t __wrap_recvfrom(int descriptor, void* buffer, std::size_t size, int flags, sockaddr* from,
                        socklen_t* from_size) {
  return Hooks().recvfrom.Call(descriptor, buffer, size, flags, from, from_size);
}

ssize_t __wrap_read(int descriptor, void* buffer, std::size_t size) {
  return Hooks().read.Call(descriptor, buffer, size);
}

ssize_t __wrap_write(int descriptor, const void* bytes, std::size_t size) {
  return Hooks().write.Call(descriptor, bytes, size);
}

int __wrap_fcntl(int descriptor, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  const long argument = va_arg(arguments, long);
  va_end(arguments);
  return Hooks().fcntl.Call(descriptor, command, argument);
}

int __wrap_pipe2(int* ends, int flags) { return Hooks().pipe2.Call(ends, flags); }

int __wrap_setsockopt(int descriptor, int level, int option, const void* value, socklen_t size) {
  return Hooks().setsockopt.Call(descriptor, level, option, value, size);
}

int __wrap_getsockopt(int descriptor, int level, int option, void* value, socklen_t* size) {
  return Hooks().getsockopt.Call(descriptor, level, option, value, size);
}

int __wrap_getsockname(int descriptor, sockaddr* address, socklen_t* size) {
  return Hooks().getsockname.Call(descriptor, address, size);
}

FILE* __wrap_fopencookie(void* cookie, const char* mode, cookie_io_functions_t functions) {
  return Hooks().fopencookie.Call(cookie, mode, functions);
}

int __wrap_close(int descriptor) { return Hooks().close.Call(descriptor); }

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument) {
  try {
    Hooks().start_thread.Call();
  } catch (const std::system_error& error) {
    return error.code().value();
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }
  return __real_pthread_create(thread, attributes, body, argument);
}

int __wrap_pthread_join(pthread_t thread, void** result) { return Hooks().pthread_join.Call(thread, result); }

Now __wrap__ZNSt6chrono3_V212steady_clock3nowEv() { return Hooks().now.Call(); }

void __wrap__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(std::thread* thread,
                                                                                                  ThreadState state,
                                                                                                  void (*depend)()) {
  Hooks().start_thread.Call();
  __real__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(thread, std::move(state),
                                                                                               depend);
}

}  // extern "C"
