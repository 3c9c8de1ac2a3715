// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <Varnix.h>

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Group.h"
#include "Log.h"
#include "Options.h"
#include "Topic.h"

// Brings the rows of imported sites into the group: each into the database DATABASE@SITE, under its own table and key.
// What it cannot bring there as it is it leaves out, with a line in the log.
//
// Threads: that of the owner alone.
class Inbox {
 public:
  // A table in each imported database that no site can have rows in: it makes empty values leave, which the library
  // sends only with the next row, and shows the library that a member has gone.
  static constexpr const char* kOwnTable = "varnix-mqtt";

  Inbox(const Options& options, const Topics& topics, Group& group, const Log& log);

  // The databases of the sites that are known by name.
  void JoinDatabases();
  // What the broker is to send us.
  std::vector<std::string> Filters() const;

  void Take(std::string_view topic, std::string_view payload);
  // What Take() has set leaves now, empty values included.
  void LetEmptyValuesLeave();
  // Once a minute.
  void Beat();
  // Once a second.
  void Tick();

 private:
  struct Database {
    std::shared_ptr<Varnix::Table> own_table;
    bool beat = false;
    bool has_empty_value = false;
  };
  struct Target {
    std::shared_ptr<Varnix::Table> table;
    Database* database = nullptr;
    std::size_t table_name_size = 0;
  };

  // Null if there are too many.
  Database* DatabaseOf(const std::string& name);
  // Where the rows go whose topics are the same up to the key; null for those that are left out. Only what is imported
  // is remembered: who floods the broker with other names costs no memory.
  const Target* FindTarget(std::string_view topic);
  const Target* MakeTarget(std::string_view topic);
  bool IsAskedFor(const std::string& site, const std::string& database) const;
  void Refuse(std::string_view topic, const std::string& why);
  void Set(const Target& target, std::string_view topic, std::string&& key, std::string_view value);
  static void SetOwnRow(Database& database);

  const Options& options_;
  const Topics& topics_;
  Group& group_;
  std::map<std::string, Database> databases_;
  std::map<std::string, Target, std::less<>> targets_;  // By topic up to the key.
  std::vector<Database*> with_empty_values_;
  Varnix::Row row_;  // Kept for its memory.
  PacedWarnings refusals_;
};
