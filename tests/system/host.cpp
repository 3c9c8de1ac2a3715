// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// A program that uses the library as its tests tell it to, by lines on standard input. Byte strings are in hexadecimal,
// "-" is the empty one. What happens is reported by lines on standard output, and every command ends in the line "ok".
// Log lines go to standard error, as level, tag and text.
#include <Varnix.h>
#include <arpa/inet.h>
#include <malloc.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>

namespace {

int FromHex(char digit) { return digit <= '9' ? digit - '0' : digit - 'a' + 10; }

// Digit by digit: the standard library's conversions take a second for a megabyte under the emulator.
std::string FromHex(const std::string& hex) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes += static_cast<char>(FromHex(hex[i]) << 4 | FromHex(hex[i + 1]));
  }
  return bytes;
}

std::string ToHex(const std::string& bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  if (bytes.empty()) return "-";
  std::string hex;
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    hex += kDigits[value >> 4];
    hex += kDigits[value & 0xF];
  }
  return hex;
}

#ifdef __SANITIZE_ADDRESS__
bool OthersSleep() {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    if (task.path().filename() == std::to_string(gettid())) continue;
    std::ifstream file(task.path() / "stat");
    std::string stat;
    std::getline(file, stat);
    const std::string::size_type name_end = stat.rfind(')');
    if (name_end != std::string::npos && stat.at(name_end + 2) != 'S') return false;
  }
  return true;
}
#endif

pid_t ForkInAQuietMoment() {
#ifdef __SANITIZE_ADDRESS__
  // Unlike the C library's, the sanitizer's allocator stays locked in the child if another thread is inside it at the
  // fork. So this waits for a moment when none is.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  while (!OthersSleep() && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
#endif
  return fork();
}

// Past stdio, so that a flush of all streams is the library's business alone.
void Say(const std::string& words) {
  // A lock that another thread holds at a fork is never given back in the child, which makes its own at its first line.
  static std::mutex* lock = new std::mutex;
  static pid_t owner = getpid();
  if (owner != getpid()) {
    lock = new std::mutex;
    owner = getpid();
  }
  const std::lock_guard<std::mutex> guard(*lock);
  const std::string line = words + "\n";
  for (std::size_t written = 0; written < line.size();) {
    const ssize_t size = write(STDOUT_FILENO, line.data() + written, line.size() - written);
    if (size < 0) return;
    written += static_cast<std::size_t>(size);
  }
}

void LogToStandardError(Varnix::LogLevel level, const char* tag, const char* format, va_list arguments) {
  char text[4096];
  std::vsnprintf(text, sizeof text, format, arguments);
  const std::string line = std::to_string(static_cast<int>(level)) + " " + tag + " " + text + "\n";
  if (write(STDERR_FILENO, line.data(), line.size()) < 0) std::abort();
}

void LogErrorsToStandardError(Varnix::LogLevel level, const char* tag, const char* format, va_list arguments) {
  if (level <= Varnix::LogLevel::Error) LogToStandardError(level, tag, format, arguments);
}

// As a hook that writes to a slow device.
void TakeTime(Varnix::LogLevel, const char*, const char*, va_list) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(10);
  while (std::chrono::steady_clock::now() < end) {
  }
}

// Since the epoch of the clock.
template <typename Clock>
std::string MillisecondsOf() {
  using std::chrono::milliseconds;
  return std::to_string(std::chrono::duration_cast<milliseconds>(Clock::now().time_since_epoch()).count());
}

// The thread goes on until the process has ended, as threads of careless hosts do.
void ReportRows(const std::string& prefix, const std::shared_ptr<Varnix::Table>& table) {
  std::thread([prefix, set = Varnix::MakeWatcherSet({table->WatchAll()})] {
    for (;;) {
      const Varnix::Row row = set->Wait().first;
      Say(prefix + " " + ToHex(row.first) + " " + ToHex(row.second));
    }
  }).detach();
}

class Host {
 public:
  // Until it is told to return: the exit status.
  int Run() {
    for (std::string line; !status_ && std::getline(std::cin, line);) {
      words_ = std::istringstream(line);
      std::string command;
      words_ >> command;
      (this->*Commands().at(command))();
      if (!status_) Say("ok");
    }
    return status_.value_or(0);
  }

 private:
  static const std::map<std::string, void (Host::*)()>& Commands() {
    static const std::map<std::string, void (Host::*)()> commands = {
        {"share", &Host::Share},
        {"group", &Host::Group},
        {"set", &Host::Set},
        {"watch", &Host::Watch},
        {"watch-tables", &Host::WatchTables},
        {"watch-databases", &Host::WatchDatabases},
        {"watch-peers", &Host::WatchPeers},
        {"list-tables", &Host::ListTables},
        {"stop-sharing", &Host::StopSharing},
        {"wait-until", &Host::WaitUntil},
        {"uptime", &Host::Uptime},
        {"date", &Host::Date},
        {"network-changed", &Host::NetworkChanged},
        {"flush", &Host::Flush},
        {"spawn", &Host::Spawn},
        {"fork", &Host::Fork},
        {"child", &Host::Child},
        {"child-of-a-thread", &Host::ChildOfAThread},
        {"sleeper", &Host::Sleeper},
        {"daemon", &Host::Daemon},
        {"posix-spawn", &Host::PosixSpawn},
        {"vfork", &Host::Vfork},
        {"exec", &Host::Exec},
        {"become", &Host::Become},
        {"forbid-threads", &Host::ForbidThreads},
        {"trim", &Host::Trim},
        {"allow-threads", &Host::AllowThreads},
        {"return", &Host::Return},
    };
    return commands;
  }

  std::string Word() {
    std::string word;
    words_ >> word;
    return word;
  }

  std::string Bytes() { return FromHex(Word()); }

  std::shared_ptr<Varnix::Table> SharedTable(const std::string& database, const std::string& table) {
    std::shared_ptr<Varnix::Table>& entry = tables_[{database, table}];
    if (!entry) entry = Varnix::MakeSharedTable(database, table);
    return entry;
  }

  void Share() {
    const std::string database = Bytes(), group = Bytes(), device = Bytes(), process = Bytes();
    Varnix::SetSharingGroup(database, group, device, process, inet_addr(Word().c_str()));
  }

  void Group() {
    std::string group, device, process;
    unsigned address = 0;
    if (!Varnix::GetSharingGroup(Bytes(), group, device, process, &address)) return Say("group none");
    char dotted[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &address, dotted, sizeof dotted);
    Say("group " + ToHex(group) + " " + ToHex(device) + " " + ToHex(process) + " " + dotted);
  }

  void Set() {
    const std::string database = Bytes(), table = Bytes(), key = Bytes(), value = Bytes();
    SharedTable(database, table)->Set({key, value});
  }

  void Watch() {
    const std::string database = Bytes(), table = Bytes();
    ReportRows("row " + ToHex(database) + " " + ToHex(table), SharedTable(database, table));
  }

  void WatchTables() {
    const std::string database = Bytes();
    ReportRows("table " + ToHex(database), Varnix::GetTableTable(database));
  }

  void WatchPeers() {
    const std::string database = Bytes();
    ReportRows("peer " + ToHex(database), Varnix::GetPeerTable(database));
  }

  void StopSharing() { Varnix::StopSharing(Bytes()); }

  void ListTables() {
    std::string names;
    for (const auto& [name, table] : Varnix::GetLocalTables()) names += " " + ToHex(name);
    Say("tables" + names);
  }

  void WatchDatabases() { ReportRows("database", Varnix::GetDatabaseTable()); }

  // For a row of the table, on a thread of its own: the deadline, when the wait was over, and the key, or "nothing".
  void WaitUntil() {
    const std::string database = Bytes(), table = Bytes();
    const std::string deadline = Word();
    std::thread([deadline, set = Varnix::MakeWatcherSet({SharedTable(database, table)->WatchAll()})] {
      using std::chrono::steady_clock;
      const auto [row, watcher] =
          set->WaitUntil(steady_clock::time_point(std::chrono::milliseconds(std::stoll(deadline))));
      Say("waited " + deadline + " " + MillisecondsOf<steady_clock>() + " " + (watcher ? ToHex(row.first) : "nothing"));
    }).detach();
  }

  void Uptime() { Say("uptime " + MillisecondsOf<std::chrono::steady_clock>()); }

  void Date() { Say("date " + MillisecondsOf<std::chrono::system_clock>()); }

  void NetworkChanged() { Varnix::NetworkChanged(); }

  void Flush() { std::fflush(nullptr); }

  // A program that sleeps until it is killed.
  void Spawn() {
    const pid_t child = ForkInAQuietMoment();
    if (child == 0) {
      execl("/bin/sleep", "sleep", "1000", nullptr);
      _exit(1);
    }
    Say("spawned " + std::to_string(child));
  }

  // Becomes a program that writes what it reads, until there is no more.
  void Exec() { execl("/bin/sh", "sh", "-c", "echo ok; exec cat", nullptr); }

  // A child without exec, which ends as the next word says.
  void Fork() {
    const std::string end = Word();
    const pid_t child = ForkInAQuietMoment();
    if (child == 0) {
      status_ = 7;
      if (end != "return") std::exit(7);
      return;
    }
    Await(child);
  }

  // A child without exec carries out the commands that follow, until it is told to return.
  void Child() {
    const pid_t child = ForkInAQuietMoment();
    if (child != 0) Await(child);
  }

  // The same from a thread that is not the first, and is newer than all others. The child goes on in it.
  void ChildOfAThread() {
    std::thread([this] {
      const pid_t child = ForkInAQuietMoment();
      if (child != 0) return Await(child);
      Say("ok");
      std::exit(Run());
    }).join();
  }

  void Await(pid_t child) {
    Say("forked " + std::to_string(child));
    int status = 0;
    waitpid(child, &status, 0);
    Say("child " + std::string(WIFEXITED(status) ? "exited " : "killed ") +
        std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status)));
  }

  // A child without exec that sleeps until it is killed.
  void Sleeper() {
    const pid_t child = ForkInAQuietMoment();
    while (child == 0) pause();
    Say("forked " + std::to_string(child));
  }

  // This process ends, and its child goes on.
  void Daemon() {
    if (daemon(1, 1) != 0) std::abort();
    Say("forked " + std::to_string(getpid()));
  }

  // Programs that end at once.
  void PosixSpawn() {
    char name[] = "true";
    char* const arguments[] = {name, nullptr};
    pid_t child = -1;
    if (posix_spawn(&child, "/bin/true", nullptr, nullptr, arguments, environ) != 0) std::abort();
    Await(child);
  }

  void Vfork() {
    const pid_t child = vfork();
    if (child == 0) {
      execl("/bin/true", "true", nullptr);
      _exit(1);
    }
    Await(child);
  }

  // Root is above the limits of what a user may have.
  void Become() {
    const auto user = static_cast<uid_t>(std::stoul(Word()));
    if (setresuid(user, user, user) != 0) std::abort();
    prctl(PR_SET_DUMPABLE, 1);  // The leak sanitizer looks into its own process.
  }

  void ForbidThreads() { LimitThreads(false); }

  void AllowThreads() { LimitThreads(true); }

  void LimitThreads(bool allowed) {
    rlimit limit{};
    getrlimit(RLIMIT_NPROC, &limit);
    limit.rlim_cur = allowed ? limit.rlim_max : 0;
    if (setrlimit(RLIMIT_NPROC, &limit) != 0) std::abort();
  }

  // What is free goes back to the system, so that what is left is in use.
  void Trim() { malloc_trim(0); }

  void Return() { status_ = 0; }

  std::istringstream words_;
  std::map<std::pair<std::string, std::string>, std::shared_ptr<Varnix::Table>> tables_;
  std::optional<int> status_;
};

}  // namespace

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);  // Else the commands, some of megabytes, are read byte by byte.
  const std::string log = argc < 2 ? "" : argv[1];
  if (log != "--default-log") {
    Varnix::SetLoggingFunction(log == "--slow-log"      ? TakeTime
                               : log == "--errors-only" ? LogErrorsToStandardError
                                                        : LogToStandardError);
  }
  return Host().Run();
}
