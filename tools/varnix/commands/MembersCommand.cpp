// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "commands/MembersCommand.h"

#include <unistd.h>

namespace {

// Only a group and a database make members come to us; all others are met when they announce themselves.
ObserverCommand::Kind KindFor(const Options& options) {
  ObserverCommand::Kind kind;
  kind.wants_rows = false;
  kind.until_settled = options.group && options.database;
  return kind;
}

}  // namespace

MembersCommand::MembersCommand(const Options& options)
    : ObserverCommand(options, KindFor(options), STDOUT_FILENO),
      printer_(options.json, IsColourWanted(session_.output.IsTerminal())) {}

void MembersCommand::OnMet(const Member& member) {
  ++met_[member.place.address];
  printer_.Print(session_.output.Text(), member);
}

bool MembersCommand::Finish() {
  for (const auto& [address, count] : Strange()) {
    const int unnamed = session_.options.database ? count : count - met_[address];
    if (unnamed <= 0) continue;
    session_.progress.Note(CountText(static_cast<std::size_t>(unnamed), "member") + " of another database at " +
                           AddressText(address) + " is named once it announces itself; --wait 61 waits for that");
  }
  return !met_.empty();
}
