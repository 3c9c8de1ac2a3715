// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "tables/RowIndex.h"

#include <algorithm>
#include <functional>
#include <limits>

namespace {

constexpr std::size_t kFewestSlots = 8;

// The slots where a hash may stand, one after the other. Steps of 1, 2, 3 ... reach every slot of a power of two, and
// two hashes that meet in one slot mostly part at the next.
class Probe {
 public:
  Probe(std::size_t hash, std::size_t slots) : mask_(slots - 1), slot_(hash & mask_) {}

  std::size_t Slot() const { return slot_; }
  void Next() { slot_ = (slot_ + ++step_) & mask_; }

 private:
  const std::size_t mask_;
  std::size_t slot_;
  std::size_t step_ = 0;
};

}  // namespace

std::size_t RowIndex::HashOf(std::string_view key) {
  constexpr std::size_t kTopBit = ~(std::numeric_limits<std::size_t>::max() >> 1);
  return std::hash<std::string_view>{}(key) | kTopBit;  // Never kEmpty; the low bits choose the slot.
}

const StoredRows::iterator* RowIndex::Find(std::string_view key, std::size_t hash) const {
  if (slots_.empty()) return nullptr;
  for (Probe probe(hash, slots_.size());; probe.Next()) {
    const Slot& slot = slots_[probe.Slot()];
    if (slot.hash == kEmpty) return nullptr;
    if (slot.hash == hash && slot.row->content.first == key) return &slot.row;
  }
}

void RowIndex::MakeRoom() {
  if ((used_ + 1) * 5 <= slots_.size() * 4) return;
  Slots larger(std::max(slots_.size() * 2, kFewestSlots));
  for (const Slot& slot : slots_) {
    if (slot.hash != kEmpty) EnterInto(larger, slot);
  }
  slots_.swap(larger);
}

void RowIndex::Enter(StoredRows::iterator row, std::size_t hash) {
  EnterInto(slots_, {hash, row});
  ++used_;
}

void RowIndex::EnterInto(Slots& slots, const Slot& entry) {
  Probe probe(entry.hash, slots.size());
  while (slots[probe.Slot()].hash != kEmpty) probe.Next();
  slots[probe.Slot()] = entry;
}
