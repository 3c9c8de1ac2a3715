// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <string>

// Why nothing comes from a member any more.
struct End {
  enum class Kind {
    kUnreachable,   // No connection, for the reason that `error` gives.
    kSilent,        // Connected, but it did not say in time who it is.
    kLeftAtOnce,    // It closed the connection before it said who it is.
    kClosed,        // It closed the connection later.
    kBroken,        // The connection failed, for the reason that `error` gives.
    kNotLookedFor,  // It is of another group, or serves another database.
    kDuplicate,     // It is received already, by way of another address.
    kOverLimit,     // It needed more memory than it may.
    kNoRoom,        // More places were known than are looked after.
    kLongName,      // It says who it is at greater length than is taken.
  };
  Kind kind = Kind::kClosed;
  int error = 0;
};

// Whether its text says "left out": there is no room for the member, or for what it sends.
bool IsLeftOut(const End& end);

// As in "press::ctl at 10.0.0.1:40213 ...".
std::string EndText(const End& end);
