// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <memory>
#include <optional>

#include "net/End.h"
#include "net/Member.h"
#include "net/ReceivingStream.h"
#include "net/Snapshot.h"

// What an observer has to do with one place at which a member accepts connections.
struct Contact {
  Member member;
  std::unique_ptr<ReceivingStream> stream;  // Null when none is wanted, or not yet again.
  TimePoint retry_at = TimePoint::max();
  TimePoint retries_end;             // From then on a new announcement is needed.
  bool met = false;                  // It has said who it is, and is one of those whom we look for.
  bool enough = false;               // All that we wanted of it has come.
  std::optional<Snapshot> snapshot;  // As long as not all of its first rows have come.
  std::size_t kept = 0;              // How many bytes are kept of it, what its stream holds not counted.

  // What counts against the limit of memory. What is kept counts on when no more is wanted.
  std::size_t Memory() const {
    if (!stream) return kept;
    return stream->IsEnded() ? 0 : kept + stream->Held() + (snapshot ? snapshot->Held() : 0);
  }
};
