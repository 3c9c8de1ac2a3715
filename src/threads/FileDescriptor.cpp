// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "threads/FileDescriptor.h"

#include <unistd.h>

#include <utility>

namespace {

Mutex list_lock;
FileDescriptor* first = nullptr;  // Guarded by list_lock.

}  // namespace

NoFork::NoFork() VARNIX_NO_LOCK_ANALYSIS { list_lock.lock(); }

NoFork::~NoFork() VARNIX_NO_LOCK_ANALYSIS { list_lock.unlock(); }

FileDescriptor::FileDescriptor(const NoFork&, int descriptor) noexcept : descriptor_(descriptor) {
  if (IsOpen()) Enter();
}

FileDescriptor::FileDescriptor(FileDescriptor&& other) noexcept {
  const NoFork no_fork;
  TakeFrom(other);
}

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
  if (this == &other) return *this;
  Close();
  const NoFork no_fork;
  TakeFrom(other);
  return *this;
}

FileDescriptor::~FileDescriptor() { Close(); }

// Under the lock to the end: a child must neither miss the descriptor nor close one that the program has got by then
// under the same number.
void FileDescriptor::Close() noexcept {
  if (!IsOpen()) return;
  const NoFork no_fork;
  Leave();
  close(std::exchange(descriptor_, -1));  // No retry on EINTR: Linux has freed the number already.
}

void FileDescriptor::TakeFrom(FileDescriptor& other) {
  if (!other.IsOpen()) return;
  other.Leave();
  descriptor_ = std::exchange(other.descriptor_, -1);
  Enter();
}

void FileDescriptor::Enter() {
  next_ = first;
  if (next_ != nullptr) next_->previous_ = this;
  first = this;
}

void FileDescriptor::Leave() {
  if (previous_ != nullptr) previous_->next_ = next_;
  if (next_ != nullptr) next_->previous_ = previous_;
  if (first == this) first = next_;
  previous_ = nullptr;
  next_ = nullptr;
}

void FileDescriptor::Lock() VARNIX_NO_LOCK_ANALYSIS { list_lock.lock(); }

void FileDescriptor::Unlock() VARNIX_NO_LOCK_ANALYSIS { list_lock.unlock(); }

void FileDescriptor::CloseAllInChild() {
  while (first != nullptr) {
    FileDescriptor& open = *first;
    open.Leave();
    close(std::exchange(open.descriptor_, -1));
  }
}
