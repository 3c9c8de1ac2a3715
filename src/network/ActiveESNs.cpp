// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "network/ActiveESNs.h"

#include <utility>

ActiveESNs::ActiveESNs(std::function<void()> release_callback) : release_callback_(std::move(release_callback)) {}

ActiveESNs::~ActiveESNs() { release_callback_(); }

EsnRegistration::EsnRegistration(std::shared_ptr<ActiveESNs> active_esns, std::string uid, PeerPlace place,
                                 std::optional<PeerPlace>& refused)
    : active_esns_(std::move(active_esns)), uid_(std::move(uid)), refused_(refused) {
  MutexLock lock(active_esns_->mutex_);
  const auto [found, inserted] = active_esns_->streams_.try_emplace(uid_, ActiveESNs::Stream{place, {}});
  inserted_ = inserted;
  if (found->second.place != place) found->second.refused = place;
}

EsnRegistration::~EsnRegistration() {
  if (!inserted_) return;
  MutexLock lock(active_esns_->mutex_);
  const auto found = active_esns_->streams_.find(uid_);
  refused_ = found->second.refused;
  active_esns_->streams_.erase(found);
}
