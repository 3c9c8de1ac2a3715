// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "net/Snapshot.h"

#include <algorithm>

namespace {

// FNV-1a: 64 bits everywhere, so that no two keys of a table meet by chance.
std::uint64_t Hash(std::string_view key) {
  std::uint64_t hash = 0xcbf29ce484222325U;
  for (const char byte : key) hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001b3U;
  return hash;
}

}  // namespace

bool Snapshot::OnRow(std::string_view key) {
  if (repeated_ != TimePoint::max()) return true;
  if (!recent_keys_) recent_keys_ = std::make_unique<RecentKeys>();
  const std::uint64_t hash = Hash(key);
  std::uint64_t& recent = (*recent_keys_)[hash % std::tuple_size<RecentKeys>::value];
  if (recent == hash) {
    repeated_ = last_bytes_;
    recent_keys_.reset();
    return true;
  }
  recent = hash;
  return false;
}

TimePoint Snapshot::CompleteAt() const { return std::min(last_bytes_, repeated_) + kWhile; }
