// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "Signals.h"

#include <sys/time.h>

#include <csignal>
#include <ctime>
#include <initializer_list>

namespace {

volatile std::sig_atomic_t end_is_asked_for = 0;

extern "C" void OnEnd(int) { end_is_asked_for = 1; }
extern "C" void OnAlarm(int) {}  // It is there to interrupt.

sigset_t Held() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGALRM}) sigaddset(&signals, signal);
  return signals;
}

void SetHandler(int signal, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;  // No SA_RESTART: a call that waits is to return.
  sigaction(signal, &action, nullptr);
}

void SetAlarm(std::chrono::seconds first, std::chrono::seconds then) {
  const itimerval times{{static_cast<time_t>(then.count()), 0}, {static_cast<time_t>(first.count()), 0}};
  setitimer(ITIMER_REAL, &times, nullptr);
}

}  // namespace

Signals::Signals() {
  const sigset_t held = Held();
  pthread_sigmask(SIG_BLOCK, &held, nullptr);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) SetHandler(signal, OnEnd);
  SetHandler(SIGALRM, OnAlarm);
  SetHandler(SIGPIPE, SIG_IGN);  // A connection that is gone is told by the call.
}

bool Signals::EndIsAskedFor() { return end_is_asked_for != 0; }

void Signals::Poll(std::vector<pollfd>& descriptors, std::chrono::milliseconds at_most) {
  const timespec limit{static_cast<time_t>(at_most.count() / 1000),
                       static_cast<long>(at_most.count() % 1000) * 1'000'000};
  sigset_t open;
  sigemptyset(&open);
  if (ppoll(descriptors.data(), descriptors.size(), &limit, &open) < 0) {
    for (pollfd& descriptor : descriptors) descriptor.revents = 0;
  }
}

Signals::LetIn::LetIn(std::chrono::seconds limit) {
  const sigset_t held = Held();
  SetAlarm(limit, std::chrono::seconds(1));
  pthread_sigmask(SIG_UNBLOCK, &held, nullptr);
}

Signals::LetIn::~LetIn() {
  const sigset_t held = Held();
  pthread_sigmask(SIG_BLOCK, &held, nullptr);
  SetAlarm(std::chrono::seconds(0), std::chrono::seconds(0));
}
