// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <string>

#include "net/Audience.h"

// Writes rows and members as lines, for a person or as JSON.
class RowPrinter {
 public:
  RowPrinter(bool json, bool coloured) : json_(json), coloured_(coloured) {}

  void Print(std::string& out, const Member& member, const Row& row);
  void Print(std::string& out, const Member& member);

 private:
  // The name of a member, printable, which is much work if it is long.
  const std::string& Name(const Member& member);
  std::string Column(const std::string& text, std::size_t& width, const char* colour) const;

  const bool json_, coloured_;
  std::string identity_, name_;  // Of the member whose row was the last: most often it has the next one, too.
  // As wide as the widest so far, so that what follows stands below it.
  std::size_t member_width_ = 0, table_width_ = 0, place_width_ = 0, group_width_ = 0;
};

// Whether to write colours to this terminal, and what ends one.
bool IsColourWanted(bool terminal);
constexpr char kNoColour[] = "\x1b[0m";
