// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string_view>

#include "net/Loop.h"

// Tells when every row has come that a member had set before we asked for them.
//
// Nothing on the wire marks that point. Two things show it: nothing has come for a while, or a key has come for the
// second time, which the first passage through the member's rows never does. (Rows that were overwritten during that
// passage follow right behind, so they get the same while.)
class Snapshot {
 public:
  static constexpr std::chrono::milliseconds kWhile{500};

  // The member begins to send.
  void Begin(TimePoint now) { last_bytes_ = now; }

  void OnBytes(TimePoint now) { last_bytes_ = now; }

  // Whether this row is one that the member has set, or set anew, after we asked.
  bool OnRow(std::string_view key);

  // How much memory this needs.
  std::size_t Held() const { return recent_keys_ ? sizeof(RecentKeys) : 0; }

  // When it is complete, as far as can be told by now.
  TimePoint CompleteAt() const;

 private:
  // The keys that came last, each at the place that its hash gives it. That suffices: a table that changes without a
  // pause sends the keys that change most last, and soon again.
  using RecentKeys = std::array<std::uint64_t, 2048>;

  TimePoint last_bytes_{}, repeated_ = TimePoint::max();
  std::unique_ptr<RecentKeys> recent_keys_;
};
