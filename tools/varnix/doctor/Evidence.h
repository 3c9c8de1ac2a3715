// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "net/End.h"
#include "net/Loop.h"
#include "net/Member.h"
#include "net/Place.h"
#include "net/Route.h"

// What was seen of one place at which somebody accepts connections.
struct SeenPlace {
  Member member;                   // Its group, as it announced or said it; its names, if it said them.
  bool heard = false;              // It has announced itself.
  bool came = false;               // It has connected to us.
  bool named = false;              // It accepted our connection and said who it is.
  TimePoint known{};               // Since when we know of it.
  std::optional<TimePoint> told;   // When we first announced ourselves from then on.
  std::optional<TimePoint> asked;  // When we asked it to connect, because it had not come by itself.
  std::size_t rows = 0;
  std::optional<End> end;       // How a connection to it came to nothing.
  std::size_t rows_at_end = 0;  // How many had come by then.
  bool gone = false;            // It has not said who it is since then.

  // It has said who it is. A connection that failed before is no fault. One that ends later is one, also when the
  // member comes back.
  void OnNamed(const Member& its_names) {
    if (!named) end.reset();
    member = its_names;
    named = true;
    gone = false;
  }

  void OnEnd(const std::string& group, const End& its_end) {
    member.group = group;
    gone = true;
    if (named && end && its_end.kind == End::Kind::kUnreachable) return;  // The end before tells more.
    end = its_end;
    rows_at_end = rows;
  }
};

// What a doctor has seen while the time lasted.
struct Evidence {
  // What was asked for.
  std::string group, database;
  std::uint32_t broadcast = 0;
  double seconds = 0;
  bool announced = true;  // Not if nothing may be sent.

  // Of this device. Each error number is 0 where all is well.
  Route route;
  int hearing_error = 0, announcing_error = 0;
  bool own_announcement = false;  // It has come back.

  // Of others. What began later than `judged_until` had too little time to be judged.
  std::map<Place, SeenPlace> places;
  TimePoint judged_until = TimePoint::max();
  CountsByAddress strangers;  // Those who left at the name of our database, by address.
};
