// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// The command `varnix`: looks at the tables that the processes of a local network share, by the protocol alone.
#include <fcntl.h>
#include <langinfo.h>
#include <unistd.h>

#include <clocale>
#include <cstring>
#include <exception>

#include "Options.h"
#include "commands/DumpCommand.h"
#include "commands/GetCommand.h"
#include "commands/LoadCommand.h"
#include "commands/MembersCommand.h"
#include "commands/RecordCommand.h"
#include "commands/SetCommand.h"
#include "commands/TablesCommand.h"
#include "commands/WatchCommand.h"
#include "doctor/DoctorCommand.h"
#include "text/Printable.h"
#include "top/TopCommand.h"
#ifdef VARNIX_TOOL_WEB
#include "web/WebCommand.h"
#endif

namespace {

// Else a socket could get the number of a standard descriptor that is closed, and be written to. Those that are opened
// here fail as closed ones do.
void ReserveStandardDescriptors() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(descriptor, F_GETFD) < 0) open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

// Files get everything as it is; terminals, what they can show.
void LearnTerminal() {
  std::setlocale(LC_CTYPE, "");
  if (isatty(STDOUT_FILENO) != 0 && std::strcmp(nl_langinfo(CODESET), "UTF-8") != 0) ShowAsciiOnly();
}

int Run(const Options& options) {
  switch (options.command) {
    case CommandName::kMembers:
      return MembersCommand(options).Run();
    case CommandName::kTables:
      return TablesCommand(options).Run();
    case CommandName::kDump:
      return DumpCommand(options).Run();
    case CommandName::kGet:
      return GetCommand(options).Run();
    case CommandName::kWatch:
      return WatchCommand(options).Run();
    case CommandName::kRecord:
      return RecordCommand(options).Run();
    case CommandName::kSet:
      return SetCommand(options, ValueToSet(options)).Run();
    case CommandName::kLoad:
    case CommandName::kReplay:
      return LoadCommand(options).Run();
    case CommandName::kDoctor:
      return DoctorCommand(options).Run();
    case CommandName::kTop:
      return TopCommand(options).Run();
    case CommandName::kWeb:
#ifdef VARNIX_TOOL_WEB
      return WebCommand(options).Run();
#else
      break;
#endif
  }
  return kFailed;
}

}  // namespace

int main(int argc, char** argv) {
  ReserveStandardDescriptors();
  int status = kUsage;
  const auto options = ParseOptions(argc, argv, status);
  if (!options) return status;
  LearnTerminal();
  try {
    return Run(*options);
  } catch (const std::exception& error) {
    Progress().Note(error.what());
    return kFailed;
  }
}
