// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <Varnix.h>

#include <memory>
#include <string>

// What a host may keep in static objects, and goes on using while they are destroyed.
class Statics {
 public:
  enum class Start { kEmpty, kFilled };

  Statics(const char* name, Start start);
  ~Statics();
  Statics(const Statics&) = delete;
  Statics& operator=(const Statics&) = delete;

  void Fill();

 private:
  void Use() const;

  const std::string name_;
  std::shared_ptr<Varnix::Table> local_;
  std::shared_ptr<Varnix::Table> shared_;
  std::shared_ptr<Varnix::Watcher> key_watcher_;
  std::shared_ptr<Varnix::Watcher> all_watcher_;
  std::shared_ptr<Varnix::Watcher> databases_;
  std::shared_ptr<Varnix::Watcher> tables_;
  std::shared_ptr<Varnix::WatcherSet> set_;
};

// The statics of the second shared library, which are made when it is loaded.
extern "C" __attribute__((visibility("default"))) void FillStaticsOfTheLibrary();

// Calls every function that the library exports, and every method of what they return. The hook captures what it logs.
void CallEverything(const std::string& database);
