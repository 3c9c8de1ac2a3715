// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "network/PeerTable.h"

#include <cstddef>
#include <utility>

#include "names/CombinedKey.h"
#include "names/InternalTableName.h"

namespace {

std::string NameOf(const std::string& uid) {
  const PrintableKey printable(uid);
  const char* const end = uid.data() + uid.size();
  std::string name(printable.name, static_cast<std::size_t>(printable.name_length));
  name += "::";
  return name.append(printable.key, static_cast<std::size_t>(end - printable.key));
}

}  // namespace

PeerTable::PeerTable(std::string database) : database_(std::move(database)) {}

std::shared_ptr<Varnix::Table> PeerTable::GetTable() {
  MutexLock lock(lock_);
  if (!table_) {
    auto made = LocalTable::Make(InternalTableName("peertbl", database_));
    for (const Varnix::Row& stream : streams_) made->SetUnlogged(stream);
    table_ = std::move(made);
  }
  return table_;
}

// Without a log line: the end of a stream must be shown, whatever the log hook throws.
void PeerTable::Show(const Varnix::Row& row) {
  if (table_) table_->SetUnlogged(row);
}

void PeerTable::Lock() VARNIX_NO_LOCK_ANALYSIS { lock_.lock(); }

void PeerTable::Unlock() VARNIX_NO_LOCK_ANALYSIS { lock_.unlock(); }

void PeerTable::EndAllInChild() {
  MutexLock lock(lock_);
  for (Varnix::Row& stream : streams_) {
    stream.second.clear();
    Show(stream);
  }
  streams_.clear();
}

PeerTableEntry::PeerTableEntry(PeerTable& peers, const std::string& uid, const PeerPlace& place) : peers_(peers) {
  std::list<Varnix::Row> stream{{NameOf(uid), ToText(place)}};
  row_ = stream.begin();
  MutexLock lock(peers_.lock_);
  peers_.Show(*row_);
  peers_.streams_.splice(peers_.streams_.end(), stream);
}

// Needs no memory: the table has the row already, with room for a place.
PeerTableEntry::~PeerTableEntry() {
  MutexLock lock(peers_.lock_);
  row_->second.clear();
  peers_.Show(*row_);
  // Two identities may look alike: "a::b" and "c", "a" and "b::c".
  for (const Varnix::Row& stream : peers_.streams_) {
    if (stream.first == row_->first && !stream.second.empty()) peers_.Show(stream);
  }
  peers_.streams_.erase(row_);
}
