// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

#include "tables/StoredRow.h"

// Finds the rows of a table by key. It keeps no keys: a slot has the position of a row and the hash of its key, so a
// key is compared with rows of the same hash only. Rows never leave a table, so no slot is ever emptied.
//
// Threads: needs the lock of the table.
// Errors: MakeRoom() alone allocates. When it throws, the index is as it was.
class RowIndex {
 public:
  static std::size_t HashOf(std::string_view key);

  // The position of the row with this key, which has this hash; null if there is none. Valid until MakeRoom().
  const StoredRows::iterator* Find(std::string_view key, std::size_t hash) const;
  // Has to be called before each Enter().
  void MakeRoom();
  // Enters a row whose key is not there yet.
  void Enter(StoredRows::iterator row, std::size_t hash);

 private:
  static constexpr std::size_t kEmpty = 0;  // No key has this hash.

  struct Slot {
    std::size_t hash = kEmpty;
    StoredRows::iterator row;
  };
  using Slots = std::vector<Slot>;

  static void EnterInto(Slots& slots, const Slot& entry);

  Slots slots_;  // A power of two, at most four fifths of them used.
  std::size_t used_ = 0;
};
