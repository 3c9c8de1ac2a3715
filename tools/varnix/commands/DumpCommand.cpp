// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "commands/DumpCommand.h"

#include <unistd.h>

#include "text/Printable.h"

DumpCommand::DumpCommand(const Options& options)
    : ObserverCommand(options, {}, STDOUT_FILENO),
      printer_(options.json, IsColourWanted(session_.output.IsTerminal())) {}

std::size_t DumpCommand::OnRow(const Member& member, const Row& row) {
  if (session_.options.table && *session_.options.table != row.table) return 0;
  ++rows_;
  printer_.Print(session_.output.Text(), member, row);
  session_.output.FlushMuch();
  return 0;
}

std::string DumpCommand::ProgressText() const {
  return ObserverCommand::ProgressText() + ", " + CountText(rows_, "row");
}

bool DumpCommand::Finish() {
  const std::optional<std::string>& table = session_.options.table;
  if (rows_ == 0) NoteNothing(table ? "no row in table \"" + Printable(*table) + "\"" : "no row");
  return rows_ > 0;
}
