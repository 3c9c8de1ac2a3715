// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "net/Strangers.h"

#include <utility>

void Strangers::BeginRound(Counts connected) {
  connected_ = std::move(connected);
  left_.clear();
}

void Strangers::OnLeft(std::uint32_t address) {
  const int strangers = ++left_[address] - connected_[address];
  if (strangers <= 0) return;
  int& most = most_[address];
  if (strangers > most) most = strangers;
}
