// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include "threads/Mutex.h"

// While it lives, fork() waits: a descriptor that is made meanwhile has an owner before a child can get a copy of it.
class NoFork {
 public:
  NoFork();
  ~NoFork();
  NoFork(const NoFork&) = delete;
  NoFork& operator=(const NoFork&) = delete;
};

// Owns one file descriptor, or none, and closes it once. In a forked child it is closed at the fork:
// otherwise the child would keep the parent's connections open.
//
// Threads: one object belongs to one thread at a time; the list of all objects has a lock of its own, a leaf.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  // Takes over `descriptor`, which a system call has returned just now; -1 stands for none. Leaves errno as it is.
  FileDescriptor(const NoFork& no_fork, int descriptor) noexcept;
  FileDescriptor(FileDescriptor&& other) noexcept;
  FileDescriptor& operator=(FileDescriptor&& other) noexcept;
  ~FileDescriptor();

  int Get() const { return descriptor_; }  // Lent: valid while this object owns it. -1 for none.
  bool IsOpen() const { return descriptor_ >= 0; }
  void Close() noexcept;

  // For fork(). The child closes the descriptors of all objects, also of those whose threads it does not have.
  static void Lock();
  static void Unlock();
  static void CloseAllInChild();

 private:
  void Enter();
  void Leave();
  void TakeFrom(FileDescriptor& other);

  int descriptor_ = -1;
  // The list of all objects that own one.
  FileDescriptor* previous_ = nullptr;
  FileDescriptor* next_ = nullptr;
};
