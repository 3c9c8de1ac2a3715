// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

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
