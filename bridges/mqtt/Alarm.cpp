// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "Alarm.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <system_error>

namespace {

int MakeEvent() {
  const int event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (event < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  return event;
}

}  // namespace

Alarm::Alarm() : event_(MakeEvent()), recall_(Varnix::MakeTable("recall")), thread_([this] { Run(); }) {}

Alarm::~Alarm() {
  EndSleep();
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  thread_.join();
  close(event_);
}

std::shared_ptr<Varnix::Watcher> Alarm::MakeRecallWatcher() const {
  std::shared_ptr<Varnix::Watcher> watcher = recall_->WatchAll();
  watcher->GetChanges();  // Of an earlier recall.
  return watcher;
}

void Alarm::Set(std::shared_ptr<Varnix::WatcherSet> changes) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    set_ = std::move(changes);
  }
  changed_.notify_all();
}

bool Alarm::IsSet() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return set_ != nullptr;
}

std::optional<Alarm::Change> Alarm::Take() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!come_ && thrown_ == nullptr) return std::nullopt;
  std::uint64_t count = 0;
  if (read(event_, &count, sizeof count) < 0) return std::nullopt;  // Cannot be: each change that comes is told.
  if (thrown_ != nullptr) std::rethrow_exception(std::exchange(thrown_, nullptr));
  return std::exchange(come_, std::nullopt);
}

std::optional<Alarm::Change> Alarm::Recall() {
  EndSleep();
  return Take();
}

void Alarm::EndSleep() {
  if (IsSet()) recall_->Set({"recall", std::to_string(++recalls_)});
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return set_ == nullptr; });
}

void Alarm::Run() {
  while (const std::shared_ptr<Varnix::WatcherSet> set = NextSet()) {
    std::optional<Change> change;
    std::exception_ptr thrown;
    try {
      change = set->Wait();
    } catch (...) {
      thrown = std::current_exception();
    }
    Ring(std::move(change), std::move(thrown));
  }
}

std::shared_ptr<Varnix::WatcherSet> Alarm::NextSet() {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return set_ != nullptr || stopping_; });
  return set_;
}

void Alarm::Ring(std::optional<Change> change, std::exception_ptr thrown) noexcept {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    come_ = std::move(change);
    thrown_ = std::move(thrown);
    set_ = nullptr;
    const std::uint64_t one = 1;
    if (write(event_, &one, sizeof one) < 0) std::abort();  // Only at 2^64 - 1, which is never reached.
  }
  changed_.notify_all();
}
