// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "io/Signals.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>

namespace {

constexpr int kTaken[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

volatile std::sig_atomic_t told_descriptor = -1;  // Of the write end; all that the handler may know.

void Tell(int signal) {
  const int before = errno;
  const char byte = static_cast<char>(signal);
  // A full pipe has told enough.
  if (write(told_descriptor, &byte, 1) != 1) errno = before;
  errno = before;
}

// Calls that wait are not begun again: whoever waits looks whether a signal has come.
void Handle(int signal, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  sigaction(signal, &action, nullptr);
}

bool IsIgnored(int signal) {
  struct sigaction action {};
  sigaction(signal, nullptr, &action);
  return action.sa_handler == SIG_IGN;
}

}  // namespace

Signals::Signals(Loop& loop) : Waiter(loop) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
  read_end_ = FileDescriptor(ends[0]);
  write_end_ = FileDescriptor(ends[1]);
  told_descriptor = ends[1];
  Handle(SIGPIPE, SIG_IGN);
  for (const int signal : kTaken) {
    if (!IsIgnored(signal)) Handle(signal, Tell);  // nohup, or a shell's background, wants it so.
  }
}

Signals::~Signals() {
  for (const int signal : kTaken) {
    if (!IsIgnored(signal)) Handle(signal, SIG_DFL);
  }
}

void Signals::Look() {
  char signal = 0;
  while (read(read_end_.Get(), &signal, 1) == 1) {
    if (first_ == 0) {
      first_ = static_cast<unsigned char>(signal);
    } else if (forgiven_) {
      again_ = true;
    }
  }
}

void Signals::EndByFirst() {
  Handle(first_, SIG_DFL);
  raise(first_);
}
