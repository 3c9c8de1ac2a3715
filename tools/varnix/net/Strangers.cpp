// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "net/Strangers.h"

#include <utility>

void Strangers::BeginRound(CountsByAddress connected) {
  connected_ = std::move(connected);
  left_.clear();
}

// Addresses are made up easily: of more, the first are kept.
int* Strangers::CountOf(CountsByAddress& counts, std::uint32_t address) {
  if (counts.size() >= kMost && counts.count(address) == 0) return nullptr;
  return &counts[address];
}

void Strangers::OnLeft(std::uint32_t address) {
  int* const left = CountOf(left_, address);
  if (left == nullptr) return;
  const auto connected = connected_.find(address);
  const int strangers = ++*left - (connected == connected_.end() ? 0 : connected->second);
  if (strangers <= 0) return;
  int* const most = CountOf(most_, address);
  if (most != nullptr && strangers > *most) *most = strangers;
}
