// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "Suspects.h"

#include <algorithm>
#include <utility>

std::optional<std::string> Suspects::Next() const {
  if (suspects_.empty()) return std::nullopt;
  return suspects_.front();
}

void Suspects::GotThrough(const std::string& topic) {
  if (!IsFirst(topic)) return;
  suspects_.pop_front();
  strikes_ = 0;
}

std::optional<std::string> Suspects::WasRefused(const std::string& topic, Time now) {
  if (IsFirst(topic)) return ConvictFirst();
  if (refusals_.size() == kMostRefusals) refusals_.pop_front();
  refusals_.push_back({topic, now});
  return std::nullopt;
}

std::optional<std::string> Suspects::ConnectionWasCutOff(const std::vector<std::string>& unacknowledged, Time now) {
  if (unacknowledged.size() == 1 && IsFirst(unacknowledged.front())) {
    return ++strikes_ == kStrikes ? ConvictFirst() : std::nullopt;
  }
  std::deque<std::string> suspects(unacknowledged.begin(), unacknowledged.end());
  for (const Refusal& refusal : std::exchange(refusals_, {})) {
    const bool known = std::find(suspects.begin(), suspects.end(), refusal.topic) != suspects.end();
    if (!known && now - refusal.time <= kJustBefore) suspects.push_back(refusal.topic);
  }
  if (suspects.empty()) return std::nullopt;  // Those that there are stay.
  suspects_ = std::move(suspects);
  strikes_ = 0;
  return std::nullopt;
}

std::optional<std::string> Suspects::ConvictFirst() {
  std::string convict = std::move(suspects_.front());
  suspects_.pop_front();
  strikes_ = 0;
  if (in_order_.size() == kMostLeftOut) {
    left_out_.erase(in_order_.front());
    in_order_.pop_front();
  }
  if (left_out_.insert(convict).second) in_order_.push_back(convict);
  return convict;
}
