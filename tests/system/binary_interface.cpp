// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Calls the library as a program does that was compiled long ago: by the place of a virtual function in its table, and
// with the numbers that it took for names.
#include <Varnix.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <string>

namespace {

using Varnix::Row;
using WatcherPointer = std::shared_ptr<Varnix::Watcher>;

// Two places for the destructor come first: one destroys, the other frees as well.
constexpr std::size_t kDestroy = 0;
constexpr std::size_t kFirst = 2;

void Require(bool met, const char* what) {
  if (met) return;
  std::printf("not so: %s\n", what);
  std::exit(1);
}

template <class Function>
Function At(const void* object, std::size_t place) {
  static_assert(sizeof(Function) == sizeof(void*), "a place of the table holds a pointer");
  const void* const* table;
  std::memcpy(&table, object, sizeof table);
  Function function;
  std::memcpy(&function, &table[place], sizeof function);
  return function;
}

// A class of the program's own, whose destructor tells that it ran.
template <class Interface>
struct Own : Interface {
  explicit Own(bool& gone) : destroyed(gone) {}
  ~Own() override { destroyed = true; }
  bool& destroyed;
};

struct OwnTable : Own<Varnix::Table> {
  using Own::Own;
  void Set(const Row&) override {}
  WatcherPointer Watch(const std::string&) override { return nullptr; }
  WatcherPointer WatchAll() override { return nullptr; }
};

struct OwnWatcher : Own<Varnix::Watcher> {
  using Own::Own;
  std::vector<Row> GetChanges() override { return {}; }
};

struct OwnSet : Own<Varnix::WatcherSet> {
  using Own::Own;
  std::pair<Row, WatcherPointer> Wait() override { return {}; }
  std::pair<Row, WatcherPointer> WaitUntil(const std::chrono::steady_clock::time_point&) override { return {}; }
};

template <class Object, class Interface>
void RequireDestructorFirst() {
  bool destroyed = false;
  alignas(Object) unsigned char memory[sizeof(Object)];
  Interface* object = new (memory) Object(destroyed);
  At<void (*)(Interface*)>(object, kDestroy)(object);
  Require(destroyed, "the destructor has the first place");
}

void CheckTable() {
  RequireDestructorFirst<OwnTable, Varnix::Table>();
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  Varnix::Table* const object = table.get();

  At<void (*)(Varnix::Table*, const Row&)>(object, kFirst)(object, {"a", "1"});
  At<void (*)(Varnix::Table*, const Row&)>(object, kFirst)(object, {"b", "2"});
  const WatcherPointer one =
      At<WatcherPointer (*)(Varnix::Table*, const std::string&)>(object, kFirst + 1)(object, "b");
  const WatcherPointer all = At<WatcherPointer (*)(Varnix::Table*)>(object, kFirst + 2)(object);

  Require(one->GetChanges() == std::vector<Row>{{"b", "2"}}, "the second function watches a key");
  Require(all->GetChanges() == std::vector<Row>{{"a", "1"}}, "the third function watches all keys");
}

void CheckWatcher() {
  RequireDestructorFirst<OwnWatcher, Varnix::Watcher>();
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  table->Set({"a", "1"});
  const WatcherPointer watcher = table->WatchAll();

  const std::vector<Row> changes = At<std::vector<Row> (*)(Varnix::Watcher*)>(watcher.get(), kFirst)(watcher.get());

  Require(changes == std::vector<Row>{{"a", "1"}}, "the first function takes the changes");
}

void CheckWatcherSet() {
  RequireDestructorFirst<OwnSet, Varnix::WatcherSet>();
  using Change = std::pair<Row, WatcherPointer>;
  using TimePoint = std::chrono::steady_clock::time_point;
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeTable("t");
  table->Set({"a", "1"});
  const WatcherPointer watcher = table->WatchAll();
  const std::shared_ptr<Varnix::WatcherSet> set = Varnix::MakeWatcherSet({watcher});
  Varnix::WatcherSet* const object = set.get();

  const Change first = At<Change (*)(Varnix::WatcherSet*)>(object, kFirst)(object);
  const Change none = At<Change (*)(Varnix::WatcherSet*, const TimePoint&)>(object, kFirst + 1)(object, TimePoint());

  Require(first == Change({"a", "1"}, watcher), "the first function waits");
  Require(none == Change(), "the second function waits until a deadline");
}

std::map<std::string, int>& Levels() {
  static std::map<std::string, int> levels;
  return levels;
}

void CheckLevels() {
  Varnix::SetLoggingFunction([](Varnix::LogLevel level, const char* tag, const char*, va_list) {
    int number;
    static_assert(sizeof number == sizeof level, "a level is an int");
    std::memcpy(&number, &level, sizeof number);
    Levels()[tag] = number;
  });
  Varnix::MakeTable("t")->Set({"a", "1"});
  Varnix::SetLoggingFunction({});

  Require(Levels() == std::map<std::string, int>{{"tbl.set.ins", 7}}, "a message of level Debug is a 7");
  const Varnix::LogLevel named[] = {Varnix::LogLevel::Emergency, Varnix::LogLevel::Alert,   Varnix::LogLevel::Critical,
                                    Varnix::LogLevel::Error,     Varnix::LogLevel::Warning, Varnix::LogLevel::Notice,
                                    Varnix::LogLevel::Info,      Varnix::LogLevel::Debug};
  for (int number = 0; number < 8; ++number) {
    Require(static_cast<int>(named[number]) == number, "the levels are numbered from 0 to 7");
  }
}

}  // namespace

int main(int, char** argv) {
  const std::map<std::string, void (*)()> checks = {
      {"Table: destructors, Set, Watch, WatchAll", CheckTable},
      {"Watcher: destructors, GetChanges", CheckWatcher},
      {"WatcherSet: destructors, Wait, WaitUntil", CheckWatcherSet},
      {"levels are numbered as those of syslog", CheckLevels},
  };
  checks.at(argv[1])();
  std::printf("%s: as ever\n", argv[1]);
}
