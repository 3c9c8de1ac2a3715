// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <string>

#include "commands/WatchCommand.h"
#include "net/FileDescriptor.h"

// `varnix record`: rows as they come, into a file.
class RecordCommand : public WatchCommand {
 public:
  explicit RecordCommand(const Options& options);

 private:
  RecordCommand(const Options& options, FileDescriptor file);

  FileDescriptor file_;
};
