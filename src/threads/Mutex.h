// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <mutex>

// Clang checks the lock rules that the headers state with these (-Wthread-safety); other compilers see plain code.
#if defined(__clang__)
#define VARNIX_THREADS(x) __attribute__((x))
#else
#define VARNIX_THREADS(x)
#endif
#define VARNIX_GUARDED_BY(...) VARNIX_THREADS(guarded_by(__VA_ARGS__))
#define VARNIX_REQUIRES(...) VARNIX_THREADS(requires_capability(__VA_ARGS__))
#define VARNIX_EXCLUDES(...) VARNIX_THREADS(locks_excluded(__VA_ARGS__))
#define VARNIX_NO_LOCK_ANALYSIS VARNIX_THREADS(no_thread_safety_analysis)

// A std::mutex that the analysis can follow; std::unique_lock and std::condition_variable accept it. A global one works
// before and after every static object: it is constant-initialised and trivially destroyed. docs/architecture.md tells
// in which order the locks are taken.
class VARNIX_THREADS(capability("mutex")) Mutex : public std::mutex {
 public:
  void lock() VARNIX_THREADS(acquire_capability()) { std::mutex::lock(); }
  void unlock() VARNIX_THREADS(release_capability()) { std::mutex::unlock(); }
};

// Tries for some microseconds before it sleeps.
void LockContended(std::unique_lock<std::mutex>& lock);

// Holds a Mutex for a scope. Throws std::system_error when locking fails.
class VARNIX_THREADS(scoped_lockable) MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) VARNIX_THREADS(acquire_capability(mutex)) : lock_(mutex, std::try_to_lock) {
    if (!lock_) LockContended(lock_);
  }
  ~MutexLock() VARNIX_THREADS(release_capability()) {}
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  // For a Condition or a std::condition_variable: the mutex is locked again after each wait.
  std::unique_lock<std::mutex>& ForWaiting() { return lock_; }

 private:
  std::unique_lock<std::mutex> lock_;
};
