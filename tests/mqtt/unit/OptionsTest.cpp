// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

#include "OptionTable.h"
#include "Options.h"

namespace {

using ::testing::ContainsRegex;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Arguments = std::vector<std::string>;

const Arguments kLeast = {"--site", "hall1", "--group", "line-4", "--database", "plant", "--broker", "broker"};

Arguments With(const Arguments& more) {
  Arguments all = kLeast;
  all.insert(all.end(), more.begin(), more.end());
  return all;
}

// What is wrong with these; empty if nothing is.
std::string Wrong(const Arguments& arguments) {
  try {
    ReadOptions(arguments);
    return "";
  } catch (const UsageError& error) {
    return error.what();
  }
}

class File {
 public:
  explicit File(const std::string& text) {
    const int descriptor = mkstemp(path_.data());
    EXPECT_GE(descriptor, 0);
    close(descriptor);
    std::ofstream(path_) << text;
  }
  ~File() { unlink(path_.c_str()); }
  const std::string& Path() const { return path_; }

 private:
  std::string path_ = "/tmp/varnix-mqtt-test-XXXXXX";
};

TEST(Options, HaveDefaults) {
  const Options options = ReadOptions(kLeast);
  EXPECT_EQ(options.site, "hall1");
  EXPECT_EQ(options.group, "line-4");
  EXPECT_THAT(options.databases, ElementsAre("plant"));
  EXPECT_EQ(options.host, "broker");
  EXPECT_EQ(options.port, 1883);
  EXPECT_EQ(options.broadcast_address, 0U);
  EXPECT_FALSE(options.device.empty());
  EXPECT_EQ(options.process, "varnix-mqtt hall1");
  EXPECT_FALSE(options.Imports());
  EXPECT_EQ(options.prefix, "varnix");
  EXPECT_FALSE(options.UsesTls());
  EXPECT_FALSE(options.read_only);
}

TEST(Options, NameTheBrokerInSeveralWays) {
  struct Case {
    std::string text, host;
    int port;
  };
  for (const Case& one : std::vector<Case>{{"h", "h", 1883},
                                           {"h:1", "h", 1},
                                           {"10.0.0.1:65535", "10.0.0.1", 65535},
                                           {"::1", "::1", 1883},
                                           {"[::1]", "::1", 1883},
                                           {"[::1]:1884", "::1", 1884}}) {
    const Options options = ReadOptions({"--site=a", "--group=g", "--database=d", "--broker=" + one.text});
    EXPECT_EQ(options.host, one.host) << one.text;
    EXPECT_EQ(options.port, one.port) << one.text;
  }
  for (const char* wrong : {"", "h:", "h:0", "h:65536", "h:x", "h:1x", ":1883", "[::1]1883", "h:123456789012"}) {
    EXPECT_THAT(Wrong({"--site=a", "--group=g", "--database=d", std::string("--broker=") + wrong}), HasSubstr("broker"))
        << wrong;
  }
}

TEST(Options, TakePort8883WithTls) {
  const File authority("");
  EXPECT_EQ(ReadOptions(With({"--ca", authority.Path()})).port, 8883);
}

TEST(Options, MayBeRepeatedWhereThereCanBeSeveral) {
  const Options options = ReadOptions(With({"--import", "b", "--import=a", "--import", "b", "--database", "office"}));
  EXPECT_THAT(options.imports, ElementsAre("a", "b"));
  EXPECT_THAT(options.databases, ElementsAre("office", "plant"));
  EXPECT_TRUE(options.ImportsFrom("a"));
  EXPECT_FALSE(options.ImportsFrom("c"));
  EXPECT_EQ(Wrong(With({"--site", "again"})), "site: given twice");
}

TEST(Options, ImportEverySiteButTheOwn) {
  const Options options = ReadOptions(With({"--import", "*"}));
  EXPECT_TRUE(options.ImportsFrom("any"));
  EXPECT_FALSE(options.ImportsFrom("hall1"));
}

TEST(Options, ThatAreMissingOrWrongAreNamed) {
  EXPECT_EQ(Wrong({}), "site: it is missing");
  EXPECT_EQ(Wrong({"--site", "a"}), "group: it is missing");
  EXPECT_EQ(Wrong({"--site", "a", "--group", "g"}), "database: it is missing");
  EXPECT_EQ(Wrong({"--site", "a", "--group", "g", "--database", "d"}), "broker: it is missing");
  EXPECT_EQ(Wrong({"--site"}), "--site needs a value");
  EXPECT_EQ(Wrong({"--nonsense", "1"}), "there is no option 'nonsense'");
  EXPECT_EQ(Wrong({"nonsense"}), "'nonsense' is no option");
  EXPECT_EQ(Wrong(With({"--broadcast", "10.0.0"})), "broadcast: '10.0.0' is no IPv4 address");
  EXPECT_EQ(Wrong(With({"--import", "hall1"})), "import: 'hall1' is this site itself");
  EXPECT_EQ(Wrong(With({"--import", "a@b"})), "import: 'a@b' has an '@', which stands for what is imported");
  EXPECT_EQ(Wrong(With({"--database", "plant@hall2"})),
            "database: 'plant@hall2' has an '@', which stands for what is imported");
  EXPECT_EQ(Wrong(With({"--import", std::string(256, 'x')})), "import: it is longer than 255 bytes");
  EXPECT_EQ(Wrong(With({"--read-only"})), "read-only: there is nothing to do without --import");
  EXPECT_EQ(Wrong(With({"--prefix", "$SYS"})), "prefix: topics that begin with '$' are the broker's own");
  EXPECT_EQ(Wrong(With({"--log-level", "loud"})), "log-level: the levels are error, warning, notice, info and debug");
  EXPECT_EQ(Wrong(With({"--cert", "c"})), "cert and key: each needs the other");
  EXPECT_EQ(Wrong(With({"--user", "h\xe4ll"})), "user: it is not UTF-8, as MQTT wants it");
  EXPECT_EQ(Wrong(With({"--ca", "/nowhere"})), "cannot read '/nowhere'");
  EXPECT_THAT(Wrong(With({"--password-file", "/nowhere"})), HasSubstr("password-file: cannot read a password from"));
}

// As "$CA" is where nobody has set it: without TLS would be the wrong answer.
TEST(Options, AreNeverEmpty) {
  EXPECT_EQ(Wrong(With({"--ca", ""})), "ca: it is empty");
  EXPECT_EQ(Wrong(With({"--user="})), "user: it is empty");
  const File file("ca =\n");
  EXPECT_EQ(Wrong(With({"--config", file.Path()})), "ca: it is empty");
}

TEST(Options, ReadThePasswordFromTheFirstLineOfAFile) {
  const File file("secret with blanks \r\nnot this\n");
  EXPECT_EQ(Wrong(With({"--password-file", file.Path()})), "password-file: it needs --user");
  EXPECT_EQ(ReadOptions(With({"--user", "u", "--password-file", file.Path()})).password, "secret with blanks ");
}

TEST(ConfigFile, HasTheSameNames) {
  const File file(
      "# A comment\n"
      "\n"
      "site = hall 1 \n"
      "  group=\" line 4 \"\r\n"
      "database = a=b # no comment\n"
      "broker = broker:1884\n"
      "broadcast = 10.0.0.255\n"
      "import = hall2\n"
      "import = *\n"
      "read-only = true\n"
      "log-level = info");
  const Options options = ReadOptions({"--config", file.Path()});
  EXPECT_EQ(options.site, "hall 1");
  EXPECT_EQ(options.group, " line 4 ");
  EXPECT_THAT(options.databases, ElementsAre("a=b # no comment"));
  EXPECT_EQ(options.port, 1884);
  EXPECT_EQ(options.broadcast_address, inet_addr("10.0.0.255"));
  EXPECT_THAT(options.imports, ElementsAre("hall2"));
  EXPECT_TRUE(options.import_every_site);
  EXPECT_TRUE(options.read_only);
  EXPECT_EQ(options.log_level, Varnix::LogLevel::Info);
}

TEST(ConfigFile, YieldsToTheCommandLine) {
  const File file("site = other\nimport = a\nimport = b\nuser = u\n");
  const Options options = ReadOptions(With({"--config=" + file.Path(), "--import", "c"}));
  EXPECT_EQ(options.site, "hall1");
  EXPECT_THAT(options.imports, ElementsAre("c"));
  EXPECT_EQ(options.user, "u");
}

TEST(ConfigFile, IsToldWhatIsWrongInWhichLine) {
  const File nonsense("site = a\nnonsense = 1\n"), line("\njust words\n"), twice("site = a\nsite = b\n");
  EXPECT_EQ(Wrong({"--config", nonsense.Path()}), nonsense.Path() + ", line 2: there is no option 'nonsense'");
  EXPECT_EQ(Wrong({"--config", line.Path()}), line.Path() + ", line 2: a line is 'name = value'");
  EXPECT_EQ(Wrong({"--config", twice.Path()}), "site: given twice");
  EXPECT_THAT(Wrong({"--config", "/nowhere"}), HasSubstr("cannot read '/nowhere'"));
  EXPECT_THAT(Wrong({"--config", "/"}), HasSubstr("cannot read '/'"));
}

TEST(Help, NamesEveryOption) {
  for (const char* name :
       {"--site", "--group", "--database", "--broker", "--broadcast", "--device", "--process", "--import", "--prefix",
        "--user", "--password-file", "--ca", "--cert", "--key", "--read-only", "--log-level", "--config"}) {
    EXPECT_THAT(HelpText(), HasSubstr(std::string(name) + " "));
  }
}

std::string ContentOf(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST(ManualAndExample, NameEveryOption) {
  const std::string manual = std::regex_replace(ContentOf(VARNIX_BRIDGE "/varnix-mqtt.1"), std::regex(R"(\\-)"), "-");
  const std::string example = ContentOf(VARNIX_BRIDGE "/service/example.conf");
  for (const OptionEntry& entry : OptionTable()) {
    EXPECT_THAT(manual, HasSubstr("--" + std::string(entry.name)));
    EXPECT_THAT(example, ContainsRegex("\n#?" + std::string(entry.name) + " = "));
  }
}

}  // namespace
