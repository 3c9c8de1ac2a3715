#include "network/Cookie.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <new>
#include <utility>

#include "logging/Log.h"
#include "network/SystemCalls.h"
#include "threads/Fork.h"

FILE* Cookie::OpenStream() {
  constexpr cookie_io_functions_t kFunctions = {&Cookie::Read, &Cookie::Write, nullptr, nullptr};
  return fopencookie(this, "r+", kFunctions);
}

ssize_t Cookie::Read(void* cookie, char* buffer, std::size_t size) {
  Cookie& self = *static_cast<Cookie*>(cookie);
  for (;;) {
    if (!self.WaitFor(POLLIN, "cook.rd.poll", "Cookie::Read: poll error %d")) return -1;
    const ssize_t received = recv(self.socket, buffer, size, 0);
    if (received >= 0) return received;
    if (errno == EINTR) continue;
    self.read_error_ = errno;
    if (self.locked_stream_ == nullptr) self.LogReadError();
    return -1;
  }
}

ssize_t Cookie::Write(void* cookie, const char* buffer, std::size_t size) {
  // What a forked child flushes when it exits is its parent's to send; and the cookie may be on the stack of a thread
  // that the child does not have.
  if (in_forked_child) return static_cast<ssize_t>(size);
  Cookie& self = *static_cast<Cookie*>(cookie);
  // The host's flush meets the bytes that our thread is sending, and has lent the lock for: they are on their way.
  if (self.lock_lent_) return static_cast<ssize_t>(size);
  // Or what stands in the buffer between two records. It must not wait for the peer, in the log hook neither.
  if (self.locked_stream_ == nullptr && (std::this_thread::get_id() != self.thread_ || IsInLogHook())) {
    return self.SendWithoutWaiting(buffer, size) ? static_cast<ssize_t>(size) : 0;
  }
  if (self.has_unsent_) {
    if (!self.Send(self.unsent_.data(), self.unsent_.size())) return 0;
    self.unsent_.clear();
    self.has_unsent_ = false;
  }
  return self.Send(buffer, size) ? static_cast<ssize_t>(size) : 0;
}

// Waits until all is taken. False when the stream is over.
bool Cookie::Send(const char* bytes, std::size_t size) {
  while (size > 0) {
    if (!WaitFor(POLLOUT, "cook.wr.poll", "Cookie::Write: poll error %d")) return false;
    const ssize_t sent = SendOnce(bytes, size);
    if (sent < 0) return false;
    if (sent == 0 && errno == EAGAIN) LogErrnoAndAbort("cook.wr.wr", "Cookie::Write: send error %d");
    bytes += sent;
    size -= static_cast<std::size_t>(sent);
  }
  return true;
}

// What the peer does not take at once is left to our thread, or to the next flush. False when the stream is over, which
// it is for want of memory to keep it in, too.
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
  shutdown(socket, SHUT_RDWR);
  return false;
}

// The number of bytes taken; 0, with errno, when it was interrupted or would have waited; -1 when the stream is over.
ssize_t Cookie::SendOnce(const char* bytes, std::size_t size) {
  errno = 0;
  const ssize_t sent = send(socket, bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL);
  if (sent >= 0) return sent;
  if (errno == EAGAIN || errno == EINTR) return 0;
  shutdown(socket, SHUT_RDWR);  // stdio drops the rest: nothing more of this stream may be read.
  return -1;
}

// True when the socket has any event; false, with `aborted` set, when the server stops, which is looked at first.
bool Cookie::WaitFor(short events, const char* tag, const char* format) {
  pollfd entries[] = {{done_descriptor, POLLIN, 0}, {socket, events, 0}};
  for (;;) {
    if (Poll(entries) < 0) {
      if (errno == EINTR) continue;
      LogErrnoAndAbort(tag, format);
    }
    if (entries[0].revents != 0) {
      aborted = true;
      return false;
    }
    if (entries[1].revents != 0) return true;
  }
}

// Lends the stream's lock out while it waits, if our thread holds it. That is safe: nothing is buffered for writing
// while a read waits; and a flush that finds what a write is sending is turned away in Write, leaves the bytes where
// they are and marks them as written, which is what our thread does next anyway.
int Cookie::Poll(pollfd* entries) {
  FILE* const lent = locked_stream_;
  if (lent != nullptr) {
    lock_lent_ = true;
    funlockfile(lent);
  }
  const int ready = poll(entries, 2, -1);
  if (lent != nullptr) {
    flockfile(lent);
    lock_lent_ = false;
  }
  return ready;
}

void Cookie::LogReadError() {
  if (read_error_ == 0) return;
  errno = std::exchange(read_error_, 0);
  Log(Varnix::LogLevel::Error, "cook.rd.rd", "Cookie::Read: read error %d", errno);
}

void Cookie::LogErrnoAndAbort(const char* tag, const char* format) {
  // The log hook may flush: it needs the lock, and must not send once more what is being sent.
  lock_lent_ = true;
  if (locked_stream_ != nullptr) funlockfile(locked_stream_);
  ::LogErrnoAndAbort(tag, format);
}

StreamLock::StreamLock(FILE* stream, Cookie& cookie) : stream_(stream), cookie_(cookie) {
  flockfile(stream_);
  cookie_.locked_stream_ = stream_;
}

StreamLock::~StreamLock() {
  cookie_.locked_stream_ = nullptr;
  funlockfile(stream_);
}
