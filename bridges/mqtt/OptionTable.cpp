// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "OptionTable.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <fstream>
#include <string_view>
#include <system_error>
#include <utility>

namespace {

using Value = const std::string&;

std::string WordsForErrno() { return std::generic_category().message(errno); }

std::string Trimmed(std::string_view text) {
  constexpr const char* kBlanks = " \t\r";
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return "";
  return std::string(text.substr(first, text.find_last_not_of(kBlanks) - first + 1));
}

std::string Unquoted(const std::string& text) {
  return text.size() >= 2 && text.front() == '"' && text.back() == '"' ? text.substr(1, text.size() - 2) : text;
}

void SetPort(Options& options, const std::string& digits) {
  const bool number = !digits.empty() && digits.size() <= 5 && digits.find_first_not_of("0123456789") == digits.npos;
  options.port = number ? std::stoi(digits) : 0;
  if (options.port < 1 || options.port > 65'535) throw UsageError("'" + digits + "' is no port");
}

// HOST, HOST:PORT, an IPv6 address, or [IPv6 address]:PORT.
void SetBroker(Options& options, Value value) {
  const std::size_t bracket = value.find(']'), colon = value.rfind(':');
  options.port = 0;
  if (!value.empty() && value.front() == '[' && bracket != value.npos) {
    options.host = value.substr(1, bracket - 1);
    if (bracket + 1 == value.size()) return;
    if (value[bracket + 1] != ':') throw UsageError("'" + value + "' is no HOST:PORT");
    SetPort(options, value.substr(bracket + 2));
  } else if (colon != value.npos && value.find(':') == colon) {
    options.host = value.substr(0, colon);
    SetPort(options, value.substr(colon + 1));
  } else {
    options.host = value;
  }
  if (options.host.empty()) throw UsageError("'" + value + "' has no host");
}

void SetBroadcast(Options& options, Value value) {
  in_addr address{};
  if (inet_pton(AF_INET, value.c_str(), &address) != 1) throw UsageError("'" + value + "' is no IPv4 address");
  options.broadcast_address = address.s_addr;
}

void AddImport(Options& options, Value value) {
  if (value == "*") {
    options.import_every_site = true;
  } else {
    options.imports.push_back(value);
  }
}

void ReadPassword(Options& options, Value path) {
  std::ifstream file(path);
  std::string password;
  if (!std::getline(file, password)) {
    throw UsageError("cannot read a password from '" + path + "': " + (file.is_open() ? "empty" : WordsForErrno()));
  }
  if (!password.empty() && password.back() == '\r') password.pop_back();
  options.password = password;
}

void SetLogLevel(Options& options, Value value) {
  using Varnix::LogLevel;
  constexpr std::array<std::pair<std::string_view, LogLevel>, 5> kLevels = {{{"error", LogLevel::Error},
                                                                             {"warning", LogLevel::Warning},
                                                                             {"notice", LogLevel::Notice},
                                                                             {"info", LogLevel::Info},
                                                                             {"debug", LogLevel::Debug}}};
  const auto* const found =
      std::find_if(kLevels.begin(), kLevels.end(), [&](const auto& level) { return level.first == value; });
  if (found == kLevels.end()) throw UsageError("the levels are error, warning, notice, info and debug");
  options.log_level = found->second;
}

void SetReadOnly(Options& options, Value value) {
  if (value != "true" && value != "false") throw UsageError("it is \"true\" or \"false\"");
  options.read_only = value == "true";
}

const OptionEntry& EntryOf(const std::string& name) {
  for (const OptionEntry& entry : OptionTable()) {
    if (entry.name == name) return entry;
  }
  throw UsageError("there is no option '" + name + "'");
}

}  // namespace

const std::vector<OptionEntry>& OptionTable() {
  static const std::vector<OptionEntry> table = {
      {"site", "NAME", "the name of this site, which no other site has", false,
       [](Options& options, Value value) { options.site = value; }},
      {"group", "NAME", "the sharing group", false, [](Options& options, Value value) { options.group = value; }},
      {"database", "NAME", "a database that is published, and imported from other sites; may be repeated", true,
       [](Options& options, Value value) { options.databases.push_back(value); }},
      {"broker", "HOST[:PORT]", "the broker; without a port 1883, or 8883 with --ca", false, SetBroker},
      {"broadcast", "ADDRESS", "where the group announces itself; default 255.255.255.255", false, SetBroadcast},
      {"device", "NAME", "as what the bridge is a member of the group; default the name of the host", false,
       [](Options& options, Value value) { options.device = value; }},
      {"process", "NAME", "likewise; default varnix-mqtt and the site", false,
       [](Options& options, Value value) { options.process = value; }},
      {"import", "SITE", "a site whose rows are imported, '*' for every other one; may be repeated", true, AddImport},
      {"prefix", "TEXT", "what all topics begin with; default varnix", false,
       [](Options& options, Value value) { options.prefix = value; }},
      {"user", "NAME", "who we are to the broker", false, [](Options& options, Value value) { options.user = value; }},
      {"password-file", "FILE", "a file whose first line is the password", false, ReadPassword},
      {"ca", "FILE", "use TLS: a file or a folder with the certificates of authorities that we trust", false,
       [](Options& options, Value value) { options.ca = value; }},
      {"cert", "FILE", "our own certificate", false, [](Options& options, Value value) { options.cert = value; }},
      {"key", "FILE", "the key of that, without a passphrase", false,
       [](Options& options, Value value) { options.key = value; }},
      {"read-only", "", "publish nothing: neither rows nor the state of the site", false, SetReadOnly},
      {"log-level", "LEVEL", "error, warning, notice (default), info or debug", false, SetLogLevel},
  };
  return table;
}

std::vector<GivenOption> ReadArguments(const std::vector<std::string>& arguments, std::string& config) {
  std::vector<GivenOption> given;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (argument.rfind("--", 0) != 0) throw UsageError("'" + argument + "' is no option");
    const std::size_t equals = argument.find('=');
    const std::string name = argument.substr(2, equals - (equals == argument.npos ? 0 : 2));
    const OptionEntry* const entry = name == "config" ? nullptr : &EntryOf(name);
    std::string value = "true";
    if (equals != argument.npos) {
      value = argument.substr(equals + 1);
    } else if (entry == nullptr || *entry->argument != '\0') {
      if (i + 1 == arguments.size()) throw UsageError("--" + name + " needs a value");
      value = arguments[++i];
    }
    if (entry == nullptr) {
      config = value;
    } else {
      given.push_back({entry, value});
    }
  }
  return given;
}

std::vector<GivenOption> ReadFile(const std::string& path) {
  std::ifstream file(path);
  if (!file) throw UsageError("cannot read '" + path + "': " + WordsForErrno());
  std::vector<GivenOption> given;
  int number = 0;
  for (std::string line; std::getline(file, line);) {
    ++number;
    line = Trimmed(line);
    if (line.empty() || line.front() == '#') continue;
    const std::size_t equals = line.find('=');
    const std::string where = path + ", line " + std::to_string(number) + ": ";
    if (equals == line.npos) throw UsageError(where + "a line is 'name = value'");
    try {
      given.push_back({&EntryOf(Trimmed(line.substr(0, equals))), Unquoted(Trimmed(line.substr(equals + 1)))});
    } catch (const UsageError& error) {
      throw UsageError(where + error.what());
    }
  }
  if (file.bad()) throw UsageError("cannot read '" + path + "': " + WordsForErrno());
  return given;
}
