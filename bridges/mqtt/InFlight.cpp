// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "InFlight.h"

#include <algorithm>
#include <utility>

void InFlight::Add(int message, std::string topic, std::size_t size) {
  bytes_ += size;
  messages_[message] = {std::move(topic), size, ++added_};
}

bool InFlight::HasAnyUpTo(unsigned long number) const {
  return std::any_of(messages_.begin(), messages_.end(), [&](const auto& one) { return one.second.number <= number; });
}

std::optional<std::string> InFlight::Remove(int message) {
  const auto found = messages_.find(message);
  if (found == messages_.end()) return std::nullopt;
  bytes_ -= found->second.size;
  std::string topic = std::move(found->second.topic);
  messages_.erase(found);
  return topic;
}

std::vector<std::string> InFlight::Clear() {
  std::vector<std::string> topics;
  for (auto& [message, content] : messages_) topics.push_back(std::move(content.topic));
  messages_.clear();
  bytes_ = 0;
  return topics;
}
