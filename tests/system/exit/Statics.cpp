// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "Statics.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <vector>

namespace {

// Processes that run side by side do not meet.
std::string OwnGroup() { return "process " + std::to_string(getpid()); }

}  // namespace

Statics::Statics(const char* name, Start start) : name_(name) {
  if (start == Start::kFilled) Fill();
}

// The objects of the library are destroyed after this, by the members' destructors.
Statics::~Statics() {
  if (!local_) std::abort();
  Use();
  CallEverything(name_ + " going");
}

void Statics::Fill() {
  local_ = Varnix::MakeTable(name_);
  shared_ = Varnix::MakeSharedTable(name_, "table");
  key_watcher_ = local_->Watch("key");
  all_watcher_ = shared_->WatchAll();
  databases_ = Varnix::GetDatabaseTable()->WatchAll();
  tables_ = Varnix::GetTableTable(name_)->WatchAll();
  set_ = Varnix::MakeWatcherSet({key_watcher_, all_watcher_, databases_, tables_});
  Varnix::SetSharingGroup(name_, OwnGroup() + name_, "device", name_, inet_addr("127.255.255.255"));
  Use();
}

void Statics::Use() const {
  static std::atomic<int> count{0};
  const std::string value = std::to_string(++count);
  local_->Set({"key", value});
  shared_->Set({"key", value});
  bool local_seen = false, shared_seen = false;
  for (;;) {
    const auto [row, watcher] = set_->WaitUntil(std::chrono::steady_clock::time_point::min());
    if (!watcher) break;
    local_seen |= watcher == key_watcher_ && row.second == value;
    shared_seen |= watcher == all_watcher_ && row.second == value;
  }
  if (!local_seen || !shared_seen) std::abort();
}

void CallEverything(const std::string& database) {
  const auto captured = std::make_shared<std::vector<std::string>>();
  Varnix::SetLoggingFunction([captured](Varnix::LogLevel, const char* tag, const char*, va_list) {
    if (captured->size() < 100) captured->push_back(tag);
  });
  Varnix::SetSharingGroup(database, OwnGroup(), "device", database, inet_addr("127.255.255.255"));
  const std::shared_ptr<Varnix::Table> shared = Varnix::MakeSharedTable(database, "table");
  const std::shared_ptr<Varnix::Table> local = Varnix::MakeTable("local");
  const std::shared_ptr<Varnix::Watcher> own = local->Watch("key");
  const std::shared_ptr<Varnix::WatcherSet> set =
      Varnix::MakeWatcherSet({shared->WatchAll(), own, Varnix::GetDatabaseTable()->WatchAll(),
                              Varnix::GetTableTable(database)->WatchAll(), Varnix::GetPeerTable(database)->WatchAll()});
  if (Varnix::GetDescriptor(set) < 0) std::abort();
  shared->Set({"key", "value"});
  local->Set({"key", "1"});
  if (own->GetChanges().size() != 1) std::abort();
  local->Set({"key", "2"});
  set->Wait();
  Varnix::NetworkChanged();
  while (set->WaitUntil(std::chrono::steady_clock::now()).second) {
  }
  std::string group, device, process;
  unsigned address = 0;
  Varnix::GetSharingGroup(database, group, device, process, &address);
  Varnix::StopSharing(database);
  Varnix::GetLocalTables();
}
