// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstddef>
#include <cstdint>

#include "net/Place.h"

// Counts those who hear our announcement, connect, and leave at the name of our database, because they share another
// one.
//
// Every announcement has everybody connect once more. Those who are connected already leave at once, too, just as
// strangers do: so both are counted from one announcement to the next.
class Strangers {
 public:
  static constexpr std::size_t kMost = 1024;  // So many addresses.

  // We have announced ourselves while so many were connected.
  void BeginRound(CountsByAddress connected);

  void OnLeft(std::uint32_t address);

  // The most that any round has shown.
  const CountsByAddress& Most() const { return most_; }

 private:
  static int* CountOf(CountsByAddress& counts, std::uint32_t address);

  CountsByAddress connected_, left_, most_;
};
