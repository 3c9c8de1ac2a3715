// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <chrono>
#include <list>

#include "network/PeerPlace.h"

// The places of one server that wait for a thread, in turn. A place is forgotten 30 seconds after it was found.
//
// Threads: the caller guards it.
class WaitingPlaces {
 public:
  // A place that waits already keeps its turn, and is found anew. If more than 1,024 would wait, those found 30 seconds
  // ago are forgotten; if there are none, the first one. Throws std::bad_alloc, and nothing has changed then.
  void Add(const FoundPlace& place);
  // Whose turn it is now. Null when none waits.
  const FoundPlace* First();
  void RemoveFirst() { places_.pop_front(); }

  bool IsEmpty() const { return places_.empty(); }
  void Clear() { places_.clear(); }

 private:
  std::list<FoundPlace> places_;
};
