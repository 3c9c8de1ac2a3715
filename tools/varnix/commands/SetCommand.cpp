// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "commands/SetCommand.h"

#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "wire/Record.h"

std::string ValueToSet(const Options& options) {
  if (options.value != "-") return options.value;
  std::string value;
  char piece[4096];
  for (ssize_t size = 1; size != 0;) {
    size = read(STDIN_FILENO, piece, sizeof piece);
    if (size < 0) throw std::system_error(errno, std::generic_category(), "cannot read the value");
    value.append(piece, static_cast<std::size_t>(size));
    if (value.size() > kMostBytesOfB) throw std::runtime_error("the value has more than 1048575 bytes");
  }
  return value;
}

SetCommand::SetCommand(const Options& options, std::string value) : SettingCommand(options), value_(std::move(value)) {}

bool SetCommand::Feed() {
  Set(*session_.options.table, *session_.options.key, std::move(value_));
  return true;
}
