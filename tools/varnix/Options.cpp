// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// The only source that sees CLI11, which is large.
#include "Options.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <map>

#include "wire/CombinedKey.h"
#include "wire/Record.h"

namespace {

std::string HostName() {
  char name[256] = "";
  gethostname(name, sizeof name - 1);
  return name;
}

CLI::Validator Size(std::size_t least, std::size_t most) {
  return CLI::Validator(
      [least, most](const std::string& text) {
        if (text.size() >= least && text.size() <= most) return std::string();
        return "must have " + std::to_string(least) + " to " + std::to_string(most) + " bytes";
      },
      "");
}

CLI::Validator AtLeast(double least) {
  return CLI::Validator(
      [least](const std::string& text) {
        double number = 0;
        const bool good = CLI::detail::lexical_cast(text, number) && std::isfinite(number) && number >= least;
        return good ? std::string() : "must be a number that is not below " + CLI::detail::to_string(least);
      },
      "");
}

CLI::Validator BroadcastAddress() {
  return CLI::Validator(
      [](const std::string& text) {
        in_addr address{};
        return inet_pton(AF_INET, text.c_str(), &address) == 1 ? std::string() : "must be an IPv4 address";
      },
      "");
}

// 0.0.0.0 stands for everybody, as it does for the library.
std::uint32_t ParseBroadcast(const std::string& text) {
  in_addr address{};
  inet_pton(AF_INET, text.c_str(), &address);
  return address.s_addr == 0 ? 0xFFFFFFFF : ntohl(address.s_addr);
}

#ifdef VARNIX_TOOL_WEB
// "127.0.0.1:8075", or one of the two; what is left out stays as it is. Whether that is what it is.
bool ParsePlace(const std::string& text, Place& place) {
  const bool has_address = text.find('.') != std::string::npos;
  const std::size_t colon = text.find(':');
  const std::string address = has_address ? text.substr(0, colon) : "";
  const std::string port = !has_address ? text : colon == std::string::npos ? "" : text.substr(colon + 1);
  if (has_address) {
    in_addr parsed{};
    if (inet_pton(AF_INET, address.c_str(), &parsed) != 1) return false;
    place.address = ntohl(parsed.s_addr);
  }
  if (has_address && colon == std::string::npos) return true;
  return CLI::detail::lexical_cast(port, place.port);
}

CLI::Validator PlaceToListenAt() {
  return CLI::Validator(
      [](const std::string& text) {
        Place place;
        return ParsePlace(text, place) ? std::string() : "must be an IPv4 address, a port, or ADDRESS:PORT";
      },
      "");
}
#endif

CLI::Option* AddArgument(CLI::App* command, const char* name, std::string& text, const char* description) {
  return command->add_option(name, text, description)->type_name("");
}

// The command line as CLI11 knows it.
class CommandLine {
 public:
  CommandLine();

  void Parse(int argc, char** argv) { app_.parse(argc, argv); }
  Options Result();
  std::string Help() const { return app_.help(); }
  std::string HelpCommand() const;

 private:
  CLI::App* Add(CommandName name, const std::string& text, const std::string& description, const std::string& example);
  void AddCommonOptions();
  void AddReadingCommands();
  void AddSettingCommands();
  void AddLivingCommands();
  void AddWebCommand();
  void CheckNeeds() const;

  Options options_;
  std::string group_, database_, broadcast_ = "255.255.255.255", listen_ = "127.0.0.1:8075";
  double wait_seconds_ = 0;
  std::string table_, key_;
  std::uint64_t count_ = 0;
  CLI::App app_{"Looks at the tables that the processes of a local network share.", "varnix"};
  std::map<const CLI::App*, CommandName> names_;
};

CommandLine::CommandLine() {
  options_.device = HostName();
  options_.process = "varnix-" + std::to_string(getpid());
  app_.footer(
      "'varnix COMMAND --help' shows more of each, with an example.\n"
      "Arguments that begin with - and a letter, or are ++, stand behind --.");
  app_.require_subcommand(0, 1);
  app_.fallthrough();
  app_.get_formatter()->label("SUBCOMMAND", "COMMAND [ARGUMENTS]");
  app_.get_formatter()->label("Positionals", "Arguments");
  app_.set_version_flag("--version", "varnix " VARNIX_TOOL_VERSION, "Print the version and exit");
  AddCommonOptions();
  AddReadingCommands();
  AddSettingCommands();
  AddLivingCommands();
  AddWebCommand();
}

void CommandLine::AddCommonOptions() {
  app_.add_option("-g,--group", group_, "The group")->type_name("NAME")->envname("VARNIX_GROUP")->check(Size(1, 254));
  app_.add_option("-d,--database", database_, "The database")
      ->type_name("NAME")
      ->envname("VARNIX_DATABASE")
      ->check(Size(1, 4095));
  app_.add_option("-b,--broadcast", broadcast_, "Where we announce ourselves")
      ->type_name("ADDRESS")
      ->envname("VARNIX_BROADCAST")
      ->capture_default_str()
      ->check(BroadcastAddress());
  app_.add_flag("-j,--json", options_.json, "Print JSON, one object a line");
  app_.add_option("-w,--wait", wait_seconds_,
                  "For how long members are looked for, and the most that a\n"
                  "command takes that ends by itself (5; with --passive 61)")
      ->type_name("SECONDS")
      ->check(AtLeast(0));
  app_.add_option("--device", options_.device, "Who we say we are (the name of this device)")
      ->type_name("NAME")
      ->check(Size(0, 255));
  app_.add_option("--process", options_.process, "Who we say we are (varnix-PID)")
      ->type_name("NAME")
      ->check(Size(0, 4096));
  app_.add_flag("--passive", options_.passive, "Announce nothing: hear announcements only, which takes up to 60 s");
  app_.add_option("--limit", options_.limit_mib, "The most memory for what members send")
      ->type_name("MIB")
      ->capture_default_str()
      ->check(CLI::Validator(CLI::Range(1, 65536)).description(""));
}

CLI::App* CommandLine::Add(CommandName name, const std::string& text, const std::string& description,
                           const std::string& example) {
  CLI::App* const command = app_.add_subcommand(text, description)->group("Commands");
  command->footer("Example:\n  " + example);
  names_[command] = name;
  return command;
}

void CommandLine::AddReadingCommands() {
  Add(CommandName::kMembers, "members", "Each member: device::process, address:port, group, database",
      "varnix -g line-4 members\n  varnix members --wait 61    # every group that is heard of");
  Add(CommandName::kTables, "tables", "Each table, with its number of rows and bytes, for each member",
      "varnix -g line-4 -d plant tables");
  CLI::App* const dump = Add(CommandName::kDump, "dump", "Every row that each member has set",
                             "varnix -g line-4 -d plant dump --json > rows.json");
  AddArgument(dump, "TABLE", table_, "This table alone");
  CLI::App* const get =
      Add(CommandName::kGet, "get", "The value of one row, as it is", "varnix -g line-4 -d plant get status speed");
  AddArgument(get, "TABLE", table_, "The table")->required();
  AddArgument(get, "KEY", key_, "The key")->required();
  get->add_flag("-r,--raw", options_.raw, "No newline behind the value");
  CLI::App* const watch =
      Add(CommandName::kWatch, "watch", "Rows as they come; those that are there come first",
          "varnix -g line-4 -d plant watch --new\n  varnix -g line-4 -d plant watch -n 1 status speed");
  AddArgument(watch, "TABLE", table_, "This table alone");
  AddArgument(watch, "KEY", key_, "This key alone");
  watch->add_option("-n,--count", count_, "End after so many rows; after --wait, too, if that is given")
      ->type_name("COUNT")
      ->check(AtLeast(1));
  watch->add_flag("--new", options_.only_new, "Without those that are there at the start");
}

void CommandLine::AddSettingCommands() {
  CLI::App* const set =
      Add(CommandName::kSet, "set", "Sets a row, as a member of its own",
          "varnix -g line-4 -d plant set status speed 42\n  date | varnix -g line-4 -d plant set --hold log today -");
  AddArgument(set, "TABLE", table_, "The table")->required();
  AddArgument(set, "KEY", key_, "The key")->required();
  AddArgument(
      set, "VALUE", options_.value,
      "The value; - reads it from standard input.\nOne that begins with - and a letter, or is ++, stands behind --")
      ->required();
  CLI::App* const load = Add(CommandName::kLoad, "load", "Sets rows from JSON lines on standard input",
                             "varnix -g line-4 -d plant load < rows.json");
  CLI::App* const replay = Add(CommandName::kReplay, "replay", "Sets the rows of a recording, at its pace",
                               "varnix -g line-4 -d plant replay monday.json --speed 10");
  AddArgument(replay, "FILE", options_.file, "What 'record' has written; - is standard input")->required();
  replay->add_option("--speed", options_.speed, "So many times as fast; 0: at once")
      ->type_name("N")
      ->capture_default_str()
      ->check(AtLeast(0));
  for (CLI::App* const command : {set, load, replay}) {
    command->add_flag("--hold", options_.hold, "Stay a member, for those who join later, until interrupted");
  }
}

void CommandLine::AddLivingCommands() {
  CLI::App* const record = Add(CommandName::kRecord, "record", "Writes rows to a file as they come, as JSON lines",
                               "varnix -g line-4 -d plant record monday.json");
  AddArgument(record, "FILE", options_.file, "The file, which is overwritten; - is standard output")->required();
  Add(CommandName::kTop, "top", "A screen that shows members, tables, and rows as they change",
      "varnix -g line-4 -d plant top");
  Add(CommandName::kDoctor, "doctor", "Why do they not meet? Checks, with what to do",
      "varnix -g line-4 -d plant doctor\n  varnix -g line-4 -d plant doctor --wait 61    # hears every member once");
}

void CommandLine::AddWebCommand() {
#ifdef VARNIX_TOOL_WEB
  CLI::App* const web = Add(CommandName::kWeb, "web", "Serves a page that shows the group as it lives, to browsers",
                            "varnix -g line-4 -d plant web\n  varnix -g line-4 -d plant web --listen 0.0.0.0:8075");
  web->add_option("-l,--listen", listen_, "Where browsers find it")
      ->type_name("ADDRESS:PORT")
      ->capture_default_str()
      ->check(PlaceToListenAt());
#endif
}

Options CommandLine::Result() {
  if (app_.get_subcommands().empty()) throw CLI::ValidationError("no command is given");
  options_.command = names_.at(app_.get_subcommands().front());
  const CLI::App& command = *app_.get_subcommands().front();
  const auto given = [&command](const char* name) {
    const CLI::Option* const option = command.get_option_no_throw(name);
    return option != nullptr && option->count() > 0;
  };
  if (app_.count("--group") > 0) options_.group = group_;
  if (app_.count("--database") > 0) options_.database = database_;
  if (app_.count("--wait") > 0) options_.wait_seconds = wait_seconds_;
  if (given("TABLE")) options_.table = table_;
  if (given("KEY")) options_.key = key_;
  if (given("--count")) options_.count = count_;
  options_.broadcast = ParseBroadcast(broadcast_);
  options_.limit_mib = std::min(options_.limit_mib, SIZE_MAX >> 20);  // In bytes it must have its place, too.
#ifdef VARNIX_TOOL_WEB
  ParsePlace(listen_, options_.listen);
#endif
  CheckNeeds();
  return options_;
}

void CommandLine::CheckNeeds() const {
  const bool any = options_.command == CommandName::kMembers;
  if (!any && !options_.group) throw CLI::ValidationError("which group? Give --group or set VARNIX_GROUP");
  if (!any && !options_.database) throw CLI::ValidationError("which database? Give --database or set VARNIX_DATABASE");
  if (options_.command != CommandName::kSet) return;
  if (options_.table->size() > kMostBytesOfName) throw CLI::ValidationError("TABLE has more than 255 bytes");
  if (1 + options_.table->size() + options_.key->size() > kMostBytesOfA) {
    throw CLI::ValidationError("TABLE and KEY have more than 4094 bytes");
  }
}

// "varnix watch --help", as far as the command is known.
std::string CommandLine::HelpCommand() const {
  const auto commands = app_.get_subcommands();
  return commands.empty() ? "varnix --help" : "varnix " + commands.front()->get_name() + " --help";
}

// In one line.
void Complain(const CommandLine& line, std::string reason) {
  for (char& character : reason) character = character == '\n' ? ' ' : character;
  std::fprintf(stderr, "varnix: %s; see '%s'\n", reason.c_str(), line.HelpCommand().c_str());
}

}  // namespace

std::optional<Options> ParseOptions(int argc, char** argv, int& status) {
  CommandLine line;
  try {
    line.Parse(argc, argv);
    return line.Result();
  } catch (const CLI::CallForHelp&) {
    std::fputs(line.Help().c_str(), stdout);
    status = kDone;
  } catch (const CLI::CallForVersion& version) {
    std::printf("%s\n", version.what());
    status = kDone;
  } catch (const CLI::ParseError& error) {
    Complain(line, error.what());
    status = kUsage;
  }
  return std::nullopt;
}
