// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "Bridge.h"
#include "Log.h"
#include "Options.h"
#include "Signals.h"

namespace {

bool IsAmong(const std::vector<std::string>& arguments, const char* wanted) {
  for (const std::string& argument : arguments) {
    if (argument == wanted) return true;
  }
  return false;
}

// Who starts us may have closed them. A connection that got the number of standard error would get the log.
void OpenWhatIsClosedOfTheStandardDescriptors() {
  int descriptor = 0;
  while (descriptor >= 0 && descriptor <= STDERR_FILENO) descriptor = open("/dev/null", O_RDWR | O_CLOEXEC);
  close(descriptor);
}

int RunBridge(const Options& options) {
  const Signals signals;
  const Log log(options.log_level);
  log.TakeThoseOfTheLibrary();
  try {
    return Bridge(options, log).Run();
  } catch (const std::exception& error) {
    log.Error(std::string("Ended by an error: ") + error.what() + ".");
    return Bridge::kFailed;
  }
}

}  // namespace

int main(int argc, char** argv) {
  OpenWhatIsClosedOfTheStandardDescriptors();
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (IsAmong(arguments, "--help")) return std::fputs(HelpText().c_str(), stdout), Bridge::kEnded;
  if (IsAmong(arguments, "--version")) return std::puts("varnix-mqtt " VARNIX_VERSION), Bridge::kEnded;
  try {
    return RunBridge(ReadOptions(arguments));
  } catch (const UsageError& error) {
    std::fprintf(stderr, "varnix-mqtt: %s\nTry 'varnix-mqtt --help'.\n", error.what());
    return Bridge::kWrongUsage;
  }
}
