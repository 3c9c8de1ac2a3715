// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "Suspects.h"

#include <algorithm>
#include <utility>

std::optional<std::string> Suspects::Next() const {
  if (suspects_.empty()) return std::nullopt;
  return suspects_.front();
}

bool Suspects::NextMustWait(Time now) const {
  return broker_takes_time_ && first_refused_ && IsJustBefore(*first_refused_, now);
}

void Suspects::GotThrough(const std::string& topic) {
  if (IsFirst(topic)) RemoveFirst();
}

std::optional<std::string> Suspects::WasRefused(const std::string& topic, Time now) {
  if (IsFirst(topic)) return ConvictFirst();
  NoteRefusal(topic, now, false);
  return std::nullopt;
}

void Suspects::WasRefusedForElse(const std::string& topic, Time now) {
  if (!IsFirst(topic)) return NoteRefusal(topic, now, false);
  if (!std::exchange(first_refused_, now)) return;
  RemoveFirst();
  NoteRefusal(topic, now, true);
}

std::optional<std::string> Suspects::ConnectionWasCutOff(const std::vector<std::string>& unacknowledged, Time now) {
  const bool was_refused = std::exchange(first_refused_, std::nullopt).has_value();
  const bool is_by_the_first =
      unacknowledged.empty() ? was_refused : unacknowledged.size() == 1 && IsFirst(unacknowledged.front());
  if (is_by_the_first) return ++strikes_ >= kStrikes + (was_refused ? 1 : 0) ? ConvictFirst() : std::nullopt;
  std::deque<std::string> suspects(unacknowledged.begin(), unacknowledged.end());
  bool broker_takes_time = false;
  for (const Refusal& refusal : std::exchange(refusals_, {})) {
    if (!IsJustBefore(refusal.time, now)) continue;
    broker_takes_time = broker_takes_time || refusal.was_suspect;
    const bool known = std::find(suspects.begin(), suspects.end(), refusal.topic) != suspects.end();
    if (!known) suspects.push_back(refusal.topic);
  }
  if (suspects.empty()) return std::nullopt;  // Those that there are stay.
  suspects_ = std::move(suspects);
  strikes_ = 0;
  broker_takes_time_ = broker_takes_time;
  return std::nullopt;
}

void Suspects::NoteRefusal(const std::string& topic, Time now, bool was_suspect) {
  if (refusals_.size() == kMostRefusals) refusals_.pop_front();
  refusals_.push_back({topic, now, was_suspect});
}

void Suspects::RemoveFirst() {
  suspects_.pop_front();
  strikes_ = 0;
  first_refused_.reset();
}

std::optional<std::string> Suspects::ConvictFirst() {
  std::string convict = suspects_.front();
  RemoveFirst();
  if (in_order_.size() == kMostLeftOut) {
    left_out_.erase(in_order_.front());
    in_order_.pop_front();
  }
  if (left_out_.insert(convict).second) in_order_.push_back(convict);
  return convict;
}
