// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "network/Cookie.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <new>
#include <utility>

#include "logging/Log.h"
#include "network/SystemCalls.h"

ssize_t Cookie::Read(void* cookie, char* buffer, std::size_t size) {
  Cookie& self = *static_cast<Cookie*>(cookie);
  for (;;) {
    if (!self.WaitFor(POLLIN, "cook.rd.poll", "Cookie::Read: poll error %d")) return -1;
    const ssize_t received = recv(self.socket.Get(), buffer, size, 0);
    if (received >= 0) return received;
    if (errno == EINTR) continue;
    self.read_error_ = errno;
    if (self.locked_stream_ == nullptr) self.LogReadError();
    return -1;
  }
}

ssize_t Cookie::Write(void* cookie, const char* buffer, std::size_t size) {
  Cookie& self = *static_cast<Cookie*>(cookie);
  const auto all = static_cast<ssize_t>(size);
  // A forked child flushes at its exit what is its parent's to send.
  if (self.BelongsToParent()) return all;
  // A flush by the program finds the bytes that our thread is sending, and has lent the lock for.
  if (self.lock_lent_) return all;
  if (self.IsFlushOfTheProgram()) return self.SendWithoutWaiting(buffer, size) ? all : 0;
  return self.SendUnsent() && self.Send(buffer, size) ? all : 0;
}

// A flush by the program comes between two records, on another thread or, in the log hook, on ours. It must not wait
// for the peer. (Of our own calls only fclose() writes there.)
bool Cookie::IsFlushOfTheProgram() const {
  return locked_stream_ == nullptr && (std::this_thread::get_id() != thread_ || IsInLogHook());
}

bool Cookie::SendUnsent() {
  if (!has_unsent_) return true;
  if (!Send(unsent_.data(), unsent_.size())) return false;
  unsent_.clear();
  has_unsent_ = false;
  return true;
}

// Waits until all is taken. False when the stream is over.
bool Cookie::Send(const char* bytes, std::size_t size) {
  while (size > 0) {
    if (!WaitFor(POLLOUT, "cook.wr.poll", "Cookie::Write: poll error %d")) return false;
    const ssize_t sent = SendOnce(bytes, size);
    if (sent < 0) return false;
    // poll() has reported room, so the system lacks memory.
    if (sent == 0 && errno == EAGAIN) EndProcess("cook.wr.wr", "Cookie::Write: send error %d");
    bytes += sent;
    size -= static_cast<std::size_t>(sent);
  }
  return true;
}

// What the peer does not take at once is left to our thread, or to the next flush. False when the stream is over; want
// of memory for the rest ends it, too.
bool Cookie::SendWithoutWaiting(const char* bytes, std::size_t size) try {
  if (has_unsent_) {
    unsent_.append(bytes, size);
    bytes = unsent_.data();
    size = unsent_.size();
  }
  const ssize_t sent = SendOnce(bytes, size);
  if (sent < 0) return false;
  std::string rest(bytes + sent, size - static_cast<std::size_t>(sent));
  unsent_.swap(rest);
  has_unsent_ = !unsent_.empty();
  return true;
} catch (const std::bad_alloc&) {
  shutdown(socket.Get(), SHUT_RDWR);
  return false;
}

// The number of bytes taken; 0, with errno, when it was interrupted or would have waited; -1 when the stream is over.
ssize_t Cookie::SendOnce(const char* bytes, std::size_t size) {
  errno = 0;
  const ssize_t sent = send(socket.Get(), bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL);
  if (sent >= 0) return sent;
  if (errno == EAGAIN || errno == EINTR) return 0;
  shutdown(socket.Get(), SHUT_RDWR);  // stdio drops the rest: nothing more of this stream may be read.
  return -1;
}

// True when the socket has any event; false, with `aborted` set, when the server stops, which is looked at first.
bool Cookie::WaitFor(short events, const char* tag, const char* format) {
  pollfd entries[] = {{done_descriptor, POLLIN, 0}, {socket.Get(), events, 0}};
  do {
    if (Poll(entries) < 0) EndProcess(tag, format);
    if (entries[0].revents != 0) {
      aborted = true;
      return false;
    }
  } while (entries[1].revents == 0);
  return true;
}

// Lends the stream's lock out while it waits, if our thread holds it. That is safe: while a read waits, nothing is
// buffered for writing; and a flush that finds what a write is sending marks the bytes as written, which our thread
// does next anyway.
int Cookie::Poll(pollfd* entries) {
  FILE* const lent = locked_stream_;
  if (lent != nullptr) {
    lock_lent_ = true;
    funlockfile(lent);
  }
  const int ready = PollAgainAfterSignals(entries, 2, -1);
  const int error = errno;
  if (lent != nullptr) {
    flockfile(lent);
    lock_lent_ = false;
  }
  errno = error;
  return ready;
}

void Cookie::LogReadError() {
  if (read_error_ == 0) return;
  errno = std::exchange(read_error_, 0);
  Log(Varnix::LogLevel::Error, "cook.rd.rd", "Cookie::Read: read error %d", errno);
}

void Cookie::EndProcess(const char* tag, const char* format) {
  // The log hook may flush: it needs the lock, and must not send once more what is being sent.
  lock_lent_ = true;
  if (locked_stream_ != nullptr) funlockfile(locked_stream_);
  LogErrnoAndAbort(tag, format);
}
