#pragma once

#include <Varnix.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <string>
#include <thread>

// What stands behind the stdio stream of a connected socket: every wait for the socket also watches the done pipe of
// the server, so that one byte there ends all reads and writes of all its streams, now and later.
//
// Threads: a cookie and its stream belong to one thread. But the host's fflush(nullptr) walks over every stream of the
// process, and would wait for the lock of ours as long as ours waits for a peer. So our thread lends the lock out
// during such waits (see Poll), and holds it for the rest of each record (see StreamLock). Between two records a row
// with an empty value may stand in the buffer: of that a flush sends what the peer takes at once, and our thread the
// rest. Ownership: owns neither descriptor nor the stream.
struct Cookie {
  Cookie(int connected_socket, int done_pipe) : socket(connected_socket), done_descriptor(done_pipe) {}

  // A stream of this cookie, in mode "r+" with stdio's own buffering; null, with errno, on failure.
  FILE* OpenStream();

  // stdio's hooks; `cookie` is a Cookie. Read returns the number of bytes, 0 at the end of the stream, -1 on failure or
  // abort. Write takes all bytes and returns their number, because glibc drops the rest of a short write, or returns 0
  // on failure or abort.
  static ssize_t Read(void* cookie, char* buffer, std::size_t size);
  static ssize_t Write(void* cookie, const char* buffer, std::size_t size);

  const int socket;
  const int done_descriptor;  // Polled, never read.
  bool aborted = false;       // The done pipe was readable. Never cleared.
  Varnix::Row incoming;       // The record that is being read, in memory that the next one will use.

  // Logs the failure of a read within a record, once the record's lock is released: the log hook may flush or open
  // streams, and would wait for that lock; and what it throws must not cross the frames of stdio.
  void LogReadError();

 private:
  friend class StreamLock;

  bool Send(const char* bytes, std::size_t size);
  bool SendWithoutWaiting(const char* bytes, std::size_t size);
  ssize_t SendOnce(const char* bytes, std::size_t size);
  bool WaitFor(short events, const char* tag, const char* format);
  int Poll(struct pollfd* entries);
  [[noreturn]] void LogErrnoAndAbort(const char* tag, const char* format);

  const std::thread::id thread_ = std::this_thread::get_id();
  int read_error_ = 0;  // An errno that has not been logged yet.
  // The host's flushes look at these. All change only under the stream's lock, which no sanitizer sees: hence atomic.
  std::atomic<FILE*> locked_stream_{nullptr};  // Set while our thread is inside a record, and may lend the lock.
  std::atomic<bool> lock_lent_{false};         // Our thread waits, or ends the process; whoever comes now is the host.
  std::atomic<bool> has_unsent_{false};
  std::string unsent_;  // What a flush of the host's could not send. Looked at after `has_unsent_`, changed before it.
};

// Locks a stream of a cookie for one record, so that a flush of the host's never meets half of one.
class StreamLock {
 public:
  StreamLock(FILE* stream, Cookie& cookie);
  ~StreamLock();
  StreamLock(const StreamLock&) = delete;
  StreamLock& operator=(const StreamLock&) = delete;

 private:
  FILE* const stream_;
  Cookie& cookie_;
};
