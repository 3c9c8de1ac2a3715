#pragma once

#include <atomic>
#include <memory>

// A place for one T that keeps its memory from one use to the next, so that the next one needs no allocation. Who finds
// it in use gets another.
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
