// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "commands/RecordCommand.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "text/Printable.h"

namespace {

FileDescriptor OpenForWriting(const std::string& name) {
  if (name == "-") return FileDescriptor(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0));
  FileDescriptor file(open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
  if (file.Get() < 0) throw std::system_error(errno, std::generic_category(), "cannot write " + Printable(name));
  return file;
}

}  // namespace

RecordCommand::RecordCommand(const Options& options) : RecordCommand(options, OpenForWriting(options.file)) {}

RecordCommand::RecordCommand(const Options& options, FileDescriptor file)
    : WatchCommand(options, true, file.Get()), file_(std::move(file)) {}
