// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "commands/GetCommand.h"

#include <unistd.h>

#include <algorithm>

#include "commands/RowPrinter.h"
#include "text/Printable.h"

GetCommand::GetCommand(const Options& options) : ObserverCommand(options, {}, STDOUT_FILENO) {}

std::size_t GetCommand::OnRow(const Member& member, const Row& row) {
  if (row.table != *session_.options.table || row.key != *session_.options.key) return 0;
  Value& value = values_[member.place];
  const std::size_t kept_before = value.value.size();
  value.member = member;
  std::string(row.value).swap(value.value);  // Assigned, a short value would keep the memory of a long one.
  value.time_us = row.time_us;
  value.number = ++arrived_;
  return value.value.size() - kept_before;
}

void GetCommand::OnEnd(const Member& member, const End& end) {
  values_.erase(member.place);
  ObserverCommand::OnEnd(member, end);
}

bool GetCommand::Finish() {
  const auto last = std::max_element(values_.begin(), values_.end(), [](const auto& left, const auto& right) {
    return left.second.number < right.second.number;
  });
  if (last == values_.end()) {
    NoteNothing("no row \"" + Printable(*session_.options.key) + "\" in table \"" + Printable(*session_.options.table) +
                "\"");
    return false;
  }
  if (values_.size() > 1) WarnOfSeveral(last->second);
  Print(last->second);
  return true;
}

void GetCommand::WarnOfSeveral(const Value& last) {
  std::string names;
  for (const auto& [place, value] : values_) names += (names.empty() ? "" : ", ") + NameAndPlaceText(value.member);
  session_.progress.Note(CountText(values_.size(), "member") + " have set this row: " + names + "; this is of " +
                         NameText(last.member) + ", the last that arrived");
}

void GetCommand::Print(const Value& value) {
  const Options& options = session_.options;
  std::string& out = session_.output.Text();
  if (options.json) {
    RowPrinter(true, false).Print(out, value.member, {*options.table, *options.key, value.value, value.time_us});
  } else {
    out += value.value;
    if (!options.raw) out += '\n';
  }
}
