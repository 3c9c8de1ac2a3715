// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "io/NoteLimit.h"

#include <utility>

bool NoteLimit::Admits(TimePoint now) {
  if (now >= begun_ + kPeriod) {
    begun_ = now;
    admitted_ = 0;
  }
  if (admitted_ < kMost) {
    ++admitted_;
    return true;
  }
  ++left_out_;
  return false;
}

TimePoint NoteLimit::Deadline() const { return left_out_ == 0 ? TimePoint::max() : begun_ + kPeriod; }

std::size_t NoteLimit::TakeLeftOut(TimePoint now) { return now < Deadline() ? 0 : std::exchange(left_out_, 0); }
