// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "network/PeerPlace.h"
#include "threads/Mutex.h"

// The peers from which one table server is receiving. An ESN, an electronic serial number, is here the identity (uid)
// of a peer. The server, its Discovery, every peer thread and every registration hold this object. Its destruction
// tells the stopping server that the last of them is gone.
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

  struct Stream {
    PeerPlace place;
    std::optional<PeerPlace> refused;  // The last other place at which the same peer was met during this stream.
  };

  Mutex mutex_;
  std::unordered_map<std::string, Stream> streams_ VARNIX_GUARDED_BY(mutex_);  // By uid.
  const std::function<void()> release_callback_;
};

// Enters a uid for the life of one receive stream. If the uid is there already, the stream that has it learns of the
// place, and nothing else changes.
class EsnRegistration {
 public:
  // When this is destroyed, `refused` gets the last other place at which the peer was refused meanwhile, if there is
  // one.
  EsnRegistration(std::shared_ptr<ActiveESNs> active_esns, std::string uid, PeerPlace place,
                  std::optional<PeerPlace>& refused);
  ~EsnRegistration();
  EsnRegistration(const EsnRegistration&) = delete;
  EsnRegistration& operator=(const EsnRegistration&) = delete;

  bool Inserted() const { return inserted_; }

 private:
  const std::shared_ptr<ActiveESNs> active_esns_;
  const std::string uid_;
  bool inserted_ = false;
  std::optional<PeerPlace>& refused_;
};
