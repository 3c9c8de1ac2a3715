// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "net/End.h"

#include <cstring>

#include "net/Member.h"

bool IsLeftOut(const End& end) {
  return end.kind == End::Kind::kOverLimit || end.kind == End::Kind::kNoRoom || end.kind == End::Kind::kLongName;
}

std::string EndText(const End& end) {
  switch (end.kind) {
    case End::Kind::kUnreachable:
      return std::string("cannot be reached: ") + std::strerror(end.error);
    case End::Kind::kSilent:
      return "accepts connections and does not say who it is";
    case End::Kind::kLeftAtOnce:
      return "closes connections before it says who it is";
    case End::Kind::kClosed:
      return "has left";
    case End::Kind::kBroken:
      return std::string("was lost: ") + std::strerror(end.error);
    case End::Kind::kNotLookedFor:
      return "is not looked for";
    case End::Kind::kDuplicate:
      return "is received by way of another address";
    case End::Kind::kOverLimit:
      return "sends more than --limit allows: left out";
    case End::Kind::kNoRoom:
      return "is one of too many places at once: left out";
    case End::Kind::kLongName:
      return "has a name of more than " + std::to_string(kMostBytesOfNames) + " bytes: left out";
  }
  return "";
}
