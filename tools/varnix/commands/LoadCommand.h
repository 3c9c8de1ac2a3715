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

  bool Parse(std::string_view line);
  void SetPending();
  bool End();

  FileDescriptor file_;
  LineReader lines_;
  Pace pace_;
  std::optional<JsonRow> pending_;
  TimePoint pending_due_;
  bool more_ = false;  // There may be lines that were not looked at, only because there were many.
};
