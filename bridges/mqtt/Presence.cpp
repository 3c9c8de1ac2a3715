// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "Presence.h"

#include <array>
#include <cstdio>
#include <random>

#include "BrokerWords.h"

std::string RandomName() {
  std::random_device chance;
  std::array<char, 17> name{};
  std::snprintf(name.data(), name.size(), "%08x%08x", static_cast<unsigned>(chance()), static_cast<unsigned>(chance()));
  return name.data();
}

Presence::Presence(const Topics& topics, const std::string& site)
    : topic_(topics.State(site)), instance_(RandomName()) {}

Broker::State Presence::NextWill() {
  ++connections_;
  has_seen_another_ = false;
  return {topic_, "0", NameOfConnection()};
}

void Presence::Announce(Broker& broker) {
  was_connected_ = is_connected_;
  is_connected_ = true;
  message_ = broker.PublishState({topic_, "1", NameOfConnection()});
}

// Nobody's: the bridge that goes on must not take it for that of another.
void Presence::TakeLeave(Broker& broker) { message_ = broker.PublishState({topic_, "0", ""}); }

bool Presence::Acknowledged(int message, int reason, const Log& log) {
  if (message_ != message) return false;
  message_.reset();
  if (IsRefusal(reason)) log.Error("The broker refuses the state of the site: " + WordsForReason(reason) + ".");
  return true;
}

void Presence::Saw(std::string_view instance) {
  if (!was_connected_ || instance.empty()) return;
  if (instance.substr(0, instance_.size()) == instance_) return other_.clear();
  if (!other_.empty() && instance != other_) has_seen_another_ = true;
  other_ = instance;
}
