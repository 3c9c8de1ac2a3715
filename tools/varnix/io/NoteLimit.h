// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <chrono>
#include <cstddef>

#include "net/Loop.h"

// How many notes about others may be written: strangers who make trouble without end must not fill a log. So many in a
// minute are let through, and the others are counted.
class NoteLimit {
 public:
  static constexpr std::size_t kMost = 60;
  static constexpr std::chrono::minutes kPeriod{1};

  // Whether one more may be written now.
  bool Admits(TimePoint now);

  // When there is a count of others to be told; never, as long as there are none.
  TimePoint Deadline() const;

  // How many were left out; 0 before the deadline. Each is counted once.
  std::size_t TakeLeftOut(TimePoint now);

 private:
  TimePoint begun_{};  // Of the minute that was the last to have notes.
  std::size_t admitted_ = 0, left_out_ = 0;
};
