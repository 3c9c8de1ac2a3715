// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <string>

#include "commands/SettingCommand.h"

// `varnix set`: one row.
class SetCommand : public SettingCommand {
 public:
  // The value is given, because it may have been read from standard input.
  SetCommand(const Options& options, std::string value);

 private:
  bool Feed() override;

  std::string value_;
};

// The value that the command line means. What does not fit into a row is a std::runtime_error.
std::string ValueToSet(const Options& options);
