// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "net/End.h"
#include "net/Member.h"
#include "net/Route.h"
#include "net/Strangers.h"

// What was seen of one place at which somebody accepts connections.
struct SeenPlace {
  Member member;       // Its group, as it announced or said it; its names, if it said them.
  bool heard = false;  // It has announced itself.
  bool came = false;   // It has connected to us.
  bool asked = false;  // Only when we had asked for that.
  bool named = false;  // It accepted our connection and said who it is.
  std::size_t rows = 0;
  std::optional<End> end;  // How the last connection to it came to nothing.
};

// What a doctor has seen while the time lasted.
struct Evidence {
  // What was asked for.
  std::string group, database;
  std::uint32_t broadcast = 0;
  double seconds = 0;
  bool announced = true;  // Not if nothing may be sent.

  // Of this host. Each error number is 0 where all is well.
  Route route;
  int hearing_error = 0, announcing_error = 0;
  bool own_announcement = false;  // It has come back.

  // Of others.
  std::map<Place, SeenPlace> places;
  Strangers::Counts strangers;  // Those who left at the name of our database, by address.
};
