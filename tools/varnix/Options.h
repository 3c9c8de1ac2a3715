// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "net/Place.h"

enum class CommandName { kMembers, kTables, kDump, kGet, kWatch, kSet, kLoad, kRecord, kReplay, kTop, kDoctor, kWeb };

// Exit statuses.
enum Status : int { kDone = 0, kFailed = 1, kUsage = 2, kNothing = 3 };

// What the command line and the environment say.
struct Options {
  CommandName command = CommandName::kMembers;

  // For every command.
  std::optional<std::string> group, database;
  std::uint32_t broadcast = 0xFFFFFFFF;  // In host byte order.
  bool json = false;
  std::optional<double> wait_seconds;
  std::string device, process;
  bool passive = false;
  std::size_t limit_mib = 64;

  // For some.
  std::optional<std::string> table, key;
  std::string value;  // "-" stands for standard input.
  std::string file;   // "-" stands for standard input or output.
  bool raw = false;
  bool hold = false;
  bool only_new = false;
  std::optional<std::uint64_t> count;
  double speed = 1;  // 0: at once.
  Place listen{0x7F000001, 8075};
};

// Reads the command line. If there is nothing more to do, because help was asked for or because of an error, which has
// been told by then, `status` gets the exit status, and there are no options.
std::optional<Options> ParseOptions(int argc, char** argv, int& status);
