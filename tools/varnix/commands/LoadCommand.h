// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <optional>

#include "commands/Pace.h"
#include "commands/SettingCommand.h"
#include "io/LineReader.h"
#include "net/FileDescriptor.h"
#include "text/JsonRow.h"

// `varnix load` and `varnix replay`: rows from JSON lines, as they come or at the pace at which they were recorded.
class LoadCommand : public SettingCommand {
 public:
  explicit LoadCommand(const Options& options);

 private:
  LoadCommand(const Options& options, FileDescriptor file);

  bool Feed() override;
  TimePoint NextRow() const override;

  void Parse(std::string_view line, std::size_t line_number);
  bool ParseUnended();
  void Await(JsonRow row, std::size_t line_number);
  void SetPending();
  void End();

  FileDescriptor file_;
  LineReader lines_;
  Pace pace_;
  std::optional<JsonRow> pending_;
  std::size_t pending_line_ = 0;  // The number of its line.
  TimePoint pending_due_;
  bool unended_parsed_ = false;  // Of the last line only the newline is missing.
  bool more_ = false;            // There may be lines that were not looked at, only because there were many.
};
