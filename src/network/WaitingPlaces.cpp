// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "network/WaitingPlaces.h"

#include <algorithm>
#include <cstddef>

namespace {

constexpr std::size_t kMostPlaces = 1024;

bool IsOld(const FoundPlace& place, std::chrono::steady_clock::time_point now) {
  return now >= place.found_at + kRetryPeriod;
}

}  // namespace

void WaitingPlaces::Add(const FoundPlace& place) {
  const auto same = std::find(places_.begin(), places_.end(), place);
  if (same != places_.end()) {
    same->found_at = place.found_at;
    return;
  }
  places_.push_back(place);
  if (places_.size() <= kMostPlaces) return;
  places_.remove_if([&](const FoundPlace& one) { return IsOld(one, place.found_at); });
  if (places_.size() > kMostPlaces) places_.pop_front();
}

const FoundPlace* WaitingPlaces::First() {
  const auto now = std::chrono::steady_clock::now();
  while (!places_.empty() && IsOld(places_.front(), now)) places_.pop_front();
  return places_.empty() ? nullptr : &places_.front();
}
