// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "io/Output.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

namespace {

constexpr std::size_t kMuch = 1 << 16;

}  // namespace

Output::Output(Loop& loop, const Signals& signals, Progress& progress, int descriptor)
    : Waiter(loop),
      signals_(signals),
      progress_(progress),
      descriptor_(descriptor),
      terminal_(isatty(descriptor) != 0) {}

void Output::FlushMuch() {
  if (text_.size() >= kMuch) Flush();
}

void Output::Flush() {
  if (text_.empty()) return;
  if (terminal_) progress_.Clear();
  const TimePoint begun = Clock::now();
  written_ = 0;
  while (!closed_ && error_ == 0 && written_ < text_.size() && WaitForReader() && WritePiece()) {
  }
  text_.clear();
  Clock::TurnBackTo(begun);
}

// False when a signal has come, and nobody reads at the moment: it does not cut off what a reader takes at once.
bool Output::WaitForReader() const {
  pollfd awaited[] = {{descriptor_, POLLOUT, 0}, {signals_.Descriptor(), POLLIN, 0}};
  while (poll(awaited, 2, signals_.First() == 0 ? -1 : 0) < 0) {
  }
  return awaited[0].revents != 0;
}

// No more than a pipe takes at once when it takes anything, so that this never waits.
bool Output::WritePiece() {
  const ssize_t size =
      write(descriptor_, text_.data() + written_, std::min<std::size_t>(text_.size() - written_, PIPE_BUF));
  if (size >= 0) {
    written_ += static_cast<std::size_t>(size);
  } else if (errno == EPIPE || errno == EBADF) {
    closed_ = true;
  } else if (errno != EINTR && errno != EAGAIN) {
    error_ = errno;
  }
  return size >= 0 || errno == EINTR || errno == EAGAIN;
}

// Nothing is waited for but the end.
void Output::OnReady(short) { closed_ = true; }
