// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <string>
#include <vector>

#include "Options.h"

// One option, as it stands on the command line with "--" before it, and in the file without.
struct OptionEntry {
  const char* name;
  const char* argument;  // How the help calls it; empty for a switch.
  const char* help;
  bool repeats;
  void (*set)(Options& options, const std::string& value);  // Throws UsageError.
};

// In the order of the help.
const std::vector<OptionEntry>& OptionTable();

// An option that was given, and its value.
struct GivenOption {
  const OptionEntry* entry;
  std::string value;
};

// "--name value", "--name=value", "--switch"; "--config FILE" is put into `config`.
std::vector<GivenOption> ReadArguments(const std::vector<std::string>& arguments, std::string& config);
// Lines "name = value". Lines that begin with '#', and empty ones, are left out. The value is all up to the end of the
// line but for blanks around it, and but for a pair of double quotes around all of it. A switch is "true" or "false".
std::vector<GivenOption> ReadFile(const std::string& path);
