// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <unistd.h>

#include <utility>

// Owns one file descriptor and closes it exactly once.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, kNone)) {}
  FileDescriptor& operator=(FileDescriptor other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~FileDescriptor() {
    if (fd_ != kNone) close(fd_);
  }

  int Get() const { return fd_; }  // Lent, not given: valid while this object lives. -1 if there is none.

 private:
  static constexpr int kNone = -1;
  int fd_ = kNone;
};
