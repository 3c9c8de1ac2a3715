#include "network/ActiveESNs.h"

#include <utility>

ActiveESNs::ActiveESNs(std::function<void()> release_callback) : release_callback_(std::move(release_callback)) {}

ActiveESNs::~ActiveESNs() { release_callback_(); }

EsnRegistration::EsnRegistration(std::shared_ptr<ActiveESNs> active_esns, std::string uid)
    : active_esns_(std::move(active_esns)), uid_(std::move(uid)) {
  MutexLock lock(active_esns_->mutex_);
  inserted_ = active_esns_->uids_.insert(uid_).second;
}

EsnRegistration::~EsnRegistration() {
  if (!inserted_) return;
  MutexLock lock(active_esns_->mutex_);
  active_esns_->uids_.erase(uid_);
}
