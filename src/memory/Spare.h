// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <atomic>
#include <memory>

// Keeps a T, with its memory, from one use to the next. Take() makes a new one when the spare is out. Of several that
// are given back it keeps the last.
//
// Threads: any; takes no lock.
template <class T>
class Spare {
 public:
  Spare() = default;
  ~Spare() { delete spare_.load(); }
  Spare(const Spare&) = delete;
  Spare& operator=(const Spare&) = delete;

  std::unique_ptr<T> Take() {
    std::unique_ptr<T> taken(spare_.exchange(nullptr));
    if (!taken) taken = std::make_unique<T>();
    return taken;
  }
  void GiveBack(std::unique_ptr<T> used) { delete spare_.exchange(used.release()); }

 private:
  std::atomic<T*> spare_{nullptr};  // Owned; null while it is in use.
};
