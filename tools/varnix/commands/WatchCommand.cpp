// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "commands/WatchCommand.h"

#include <unistd.h>

namespace {

ObserverCommand::Kind Living() {
  ObserverCommand::Kind kind;
  kind.living = true;
  return kind;
}

}  // namespace

WatchCommand::WatchCommand(const Options& options) : WatchCommand(options, options.json, STDOUT_FILENO) {}

WatchCommand::WatchCommand(const Options& options, bool json, int descriptor)
    : ObserverCommand(options, Living(), descriptor), printer_(json, IsColourWanted(session_.output.IsTerminal())) {}

std::size_t WatchCommand::OnRow(const Member& member, const Row& row) {
  if (!IsAskedFor(row) || IsDone()) return 0;
  ++rows_;
  printer_.Print(session_.output.Text(), member, row);
  session_.output.FlushMuch();
  return 0;
}

bool WatchCommand::IsAskedFor(const Row& row) const {
  const Options& options = session_.options;
  return (!options.table || *options.table == row.table) && (!options.key || *options.key == row.key) &&
         (!options.only_new || row.fresh);
}

bool WatchCommand::IsDone() { return session_.options.count && rows_ >= *session_.options.count; }

std::string WatchCommand::ProgressText() const {
  return ObserverCommand::ProgressText() + ", " + CountText(rows_, "row");
}

bool WatchCommand::Finish() {
  if (!IsDone()) NoteNothing((rows_ == 0 ? "" : "only ") + CountText(rows_, "row"));
  return IsDone();
}
