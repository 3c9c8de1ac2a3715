#pragma once

#include <functional>
#include <memory>
#include <string>
#include <unordered_set>

#include "threads/Mutex.h"

// The identities (uids) of the peers from which one table server is receiving. The server, every peer thread and every
// registration hold it; its destruction tells the stopping server that the last of them is gone.
//
// Threads: any. Its mutex is held only while one uid goes in or out.
class ActiveESNs {
 public:
  // `release_callback` runs once, in the destructor, on the thread that drops the last reference. Must not be empty.
  explicit ActiveESNs(std::function<void()> release_callback);
  ~ActiveESNs();
  ActiveESNs(const ActiveESNs&) = delete;
  ActiveESNs& operator=(const ActiveESNs&) = delete;

 private:
  friend class EsnRegistration;

  Mutex mutex_;
  std::unordered_set<std::string> uids_ VARNIX_GUARDED_BY(mutex_);
  const std::function<void()> release_callback_;
};

// Enters a uid for the life of one receive stream, unless it is there already: then it changes nothing, ever.
class EsnRegistration {
 public:
  EsnRegistration(std::shared_ptr<ActiveESNs> active_esns, std::string uid);
  ~EsnRegistration();
  EsnRegistration(const EsnRegistration&) = delete;
  EsnRegistration& operator=(const EsnRegistration&) = delete;

  bool Inserted() const { return inserted_; }

 private:
  const std::shared_ptr<ActiveESNs> active_esns_;
  const std::string uid_;
  bool inserted_ = false;
};
