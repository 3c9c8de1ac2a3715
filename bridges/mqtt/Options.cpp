// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "Options.h"

#include <mosquitto.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "OptionTable.h"
#include "Topic.h"

namespace {

constexpr std::size_t kLongestGroup = 254;
constexpr std::size_t kLongestDevice = 255;

void Apply(const std::vector<GivenOption>& given, Options& options) {
  std::vector<const OptionEntry*> applied;
  for (const GivenOption& option : given) {
    const OptionEntry* const entry = option.entry;
    const bool again = std::find(applied.begin(), applied.end(), entry) != applied.end();
    if (again && !entry->repeats) throw UsageError(std::string(entry->name) + ": given twice");
    if (option.value.empty()) throw UsageError(std::string(entry->name) + ": it is empty");
    applied.push_back(entry);
    try {
      entry->set(options, option.value);
    } catch (const UsageError& error) {
      throw UsageError(std::string(entry->name) + ": " + error.what());
    }
  }
}

// The options of the file without those that the command line has, too.
std::vector<GivenOption> WithoutThose(std::vector<GivenOption> file, const std::vector<GivenOption>& command_line) {
  const auto is_overruled = [&](const GivenOption& option) {
    return std::any_of(command_line.begin(), command_line.end(),
                       [&](const GivenOption& other) { return other.entry == option.entry; });
  };
  file.erase(std::remove_if(file.begin(), file.end(), is_overruled), file.end());
  return file;
}

std::string NameOfThisHost() {
  char name[256] = {};
  if (gethostname(name, sizeof name - 1) != 0) return "host";
  return name;
}

void RemoveRepeated(std::vector<std::string>& names) {
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
}

void Complete(Options& options) {
  RemoveRepeated(options.databases);
  RemoveRepeated(options.imports);
  if (options.port == 0) options.port = options.UsesTls() ? 8883 : 1883;
  if (options.device.empty()) options.device = NameOfThisHost();
  if (options.process.empty()) options.process = "varnix-mqtt " + options.site;
}

void CheckNames(const Options& options) {
  const std::string wrong_site = WhatIsWrongWithName(options.site, kLongestSite);
  if (!wrong_site.empty()) throw UsageError("site: " + wrong_site);
  if (options.group.empty()) throw UsageError("group: it is missing");
  if (options.group.size() > kLongestGroup) throw UsageError("group: it is longer than 254 bytes");
  if (options.databases.empty()) throw UsageError("database: it is missing");
  for (const std::string& database : options.databases) {
    const std::string wrong = WhatIsWrongWithName(database, kLongestDatabase);
    if (!wrong.empty()) throw UsageError("database: " + wrong);
  }
  if (options.device.size() > kLongestDevice) throw UsageError("device: it is longer than 255 bytes");
  const std::string wrong_prefix = Topics::WhatIsWrong(options.prefix);
  if (!wrong_prefix.empty()) throw UsageError("prefix: " + wrong_prefix);
}

void CheckImports(const Options& options) {
  for (const std::string& site : options.imports) {
    const std::string wrong = WhatIsWrongWithName(site, kLongestSite);
    if (!wrong.empty()) throw UsageError("import: " + wrong);
    if (site == options.site) throw UsageError("import: '" + site + "' is this site itself");
  }
  if (options.read_only && !options.Imports()) throw UsageError("read-only: there is nothing to do without --import");
}

void CheckBroker(const Options& options) {
  if (options.host.empty()) throw UsageError("broker: it is missing");
  if (mosquitto_validate_utf8(options.user.c_str(), static_cast<int>(options.user.size())) != MOSQ_ERR_SUCCESS) {
    throw UsageError("user: it is not UTF-8, as MQTT wants it");
  }
  if (options.password && options.user.empty()) throw UsageError("password-file: it needs --user");
  if (options.cert.empty() != options.key.empty()) throw UsageError("cert and key: each needs the other");
  if (!options.cert.empty() && !options.UsesTls()) throw UsageError("cert: it needs --ca");
  for (const std::string& file : {options.ca, options.cert, options.key}) {
    if (!file.empty() && access(file.c_str(), R_OK) != 0) throw UsageError("cannot read '" + file + "'");
  }
}

}  // namespace

bool Options::ImportsFrom(const std::string& other_site) const {
  if (other_site == site) return false;
  return import_every_site || std::find(imports.begin(), imports.end(), other_site) != imports.end();
}

Options ReadOptions(const std::vector<std::string>& arguments) {
  Options options;
  std::string config;
  const std::vector<GivenOption> command_line = ReadArguments(arguments, config);
  if (!config.empty()) Apply(WithoutThose(ReadFile(config), command_line), options);
  Apply(command_line, options);
  Complete(options);
  CheckNames(options);
  CheckImports(options);
  CheckBroker(options);
  return options;
}

std::string HelpText() {
  std::string text =
      "Usage: varnix-mqtt --site NAME --group NAME --database NAME --broker HOST[:PORT] [OPTION]...\n"
      "Publishes the rows of a sharing group at an MQTT broker, and brings those of other sites into the group.\n\n";
  const auto add = [&text](std::string option, const std::string& help) {
    option.resize(std::max<std::size_t>(option.size() + 2, 26), ' ');
    text += "  --" + option + help + "\n";
  };
  for (const OptionEntry& entry : OptionTable()) add(std::string(entry.name) + ' ' + entry.argument, entry.help);
  add("config FILE", "a file with the same names, in lines 'name = value'");
  add("help", "print this");
  add("version", "print the version");
  return text;
}

std::string ImportedDatabase(const std::string& database, const std::string& site) { return database + '@' + site; }

std::string WhatIsWrongWithName(const std::string& name, std::size_t longest) {
  if (name.empty()) return "it is missing";
  if (name.find('@') != name.npos) return "'" + name + "' has an '@', which stands for what is imported";
  if (name.size() > longest) return "it is longer than " + std::to_string(longest) + " bytes";
  return "";
}
