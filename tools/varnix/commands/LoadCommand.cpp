// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "commands/LoadCommand.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "text/Printable.h"

namespace {

constexpr int kMostLines = 1000;  // So that the members get theirs while there is more to read.

FileDescriptor OpenForReading(const Options& options) {
  const bool from_input = options.command == CommandName::kLoad || options.file == "-";
  if (from_input) return FileDescriptor(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0));
  FileDescriptor file(open(options.file.c_str(), O_RDONLY | O_CLOEXEC));
  if (file.Get() < 0) throw std::system_error(errno, std::generic_category(), "cannot read " + Printable(options.file));
  return file;
}

}  // namespace

LoadCommand::LoadCommand(const Options& options) : LoadCommand(options, OpenForReading(options)) {}

LoadCommand::LoadCommand(const Options& options, FileDescriptor file)
    : SettingCommand(options),
      file_(std::move(file)),
      lines_(session_.loop, file_.Get()),
      pace_(session_.begun, options.command == CommandName::kReplay ? options.speed : 0) {}

bool LoadCommand::Feed() {
  more_ = false;
  for (int i = 0; i < kMostLines; ++i) {
    if (pending_ && pending_due_ > Clock::now()) return false;
    if (pending_) SetPending();
    if (const auto line = lines_.Next()) {
      Parse(*line, lines_.LineNumber());
    } else if (!lines_.IsAtEnd()) {
      return false;
    } else if (!ParseUnended()) {
      End();
      return true;
    }
  }
  more_ = true;
  return false;
}

TimePoint LoadCommand::NextRow() const {
  if (more_) return Clock::now();
  return pending_ ? pending_due_ : TimePoint::max();
}

void LoadCommand::Parse(std::string_view line, std::size_t line_number) {
  JsonRow row;
  const std::string error = ParseJsonRow(line, row);
  if (error.empty()) return Await(std::move(row), line_number);
  Fail("line " + std::to_string(line_number) + ": " + error + ": left out");
}

// The last line, if it is whole, though it has no newline. Returns whether it has a row.
bool LoadCommand::ParseUnended() {
  if (unended_parsed_ || lines_.IsTooLong() || MayBeTorn(lines_.Torn())) return false;
  unended_parsed_ = true;
  Parse(lines_.Torn(), lines_.LineNumber() + 1);
  return pending_.has_value();
}

void LoadCommand::Await(JsonRow row, std::size_t line_number) {
  pending_ = std::move(row);
  pending_line_ = line_number;
  pending_due_ = pace_.DueTime(pending_->time_us);
}

void LoadCommand::SetPending() {
  const std::string where = "line " + std::to_string(pending_line_) + ": ";
  Set(pending_->table, pending_->key, std::move(pending_->value), where);
  pending_.reset();
}

// Says what was not a whole line; a recording that was cut off ends so.
void LoadCommand::End() {
  const std::string line = "line " + std::to_string(lines_.LineNumber() + 1);
  if (lines_.Error() != 0) Fail(std::string("cannot read further: ") + std::strerror(lines_.Error()));
  if (lines_.IsTooLong()) {
    Fail(line + " is longer than 16 MiB: it and all behind it are left out");
  } else if (!lines_.Torn().empty() && !unended_parsed_) {
    session_.progress.Note(line + " is torn: left out");
  }
}
