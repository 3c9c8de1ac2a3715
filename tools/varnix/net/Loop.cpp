// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "net/Loop.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

Waiter::Waiter(Loop& loop) : loop_(loop) { loop.waiters_.push_back(this); }

Waiter::~Waiter() { std::replace(loop_.waiters_.begin(), loop_.waiters_.end(), this, static_cast<Waiter*>(nullptr)); }

void Loop::Turn(TimePoint until) {
  waiters_.erase(std::remove(waiters_.begin(), waiters_.end(), nullptr), waiters_.end());
  polled_.clear();
  is_polled_.clear();
  for (const Waiter* waiter : waiters_) {
    const pollfd awaited = waiter->Awaited();
    is_polled_.push_back(awaited.fd >= 0);  // The system refuses more entries than there may be descriptors.
    if (awaited.fd >= 0) polled_.push_back(awaited);
    until = std::min(until, waiter->Deadline());
  }
  if (poll(polled_.data(), polled_.size(), WaitingTime(until)) < 0) {
    if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "poll");
    return;  // A signal: whoever waits for one looks before the next turn.
  }
  auto polled = polled_.cbegin();
  for (std::size_t i = 0; i < is_polled_.size(); ++i) Dispatch(i, is_polled_[i] ? (polled++)->revents : short{0});
}

// In milliseconds, rounded up, so that it never spins before a deadline.
int Loop::WaitingTime(TimePoint until) const {
  if (until == TimePoint::max()) return -1;
  const auto rest = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
  return static_cast<int>(std::clamp<decltype(rest)>(rest, 0, 60'000));
}

// A deadline that was set while it was called is for the next turn.
void Loop::Dispatch(std::size_t index, short events) {
  const auto is_due = [this, index] {
    return waiters_[index] != nullptr && waiters_[index]->Deadline() <= Clock::now();
  };
  const bool due = is_due();
  if (events != 0 && waiters_[index] != nullptr) waiters_[index]->OnReady(events);
  if (due && is_due()) waiters_[index]->OnDeadline();
}
