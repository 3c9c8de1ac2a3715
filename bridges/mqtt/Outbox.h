// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <Varnix.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "Alarm.h"
#include "Log.h"
#include "Options.h"
#include "Topic.h"

// A row that is to be published.
struct OutRow {
  std::string topic;
  std::string value;
};

// What the group has and the broker has not. It keeps no rows of its own: they wait in the tables of the library, where
// a row that changes again is one row still. Which tables there are it learns from the library, too.
//
// Threads: that of the owner alone.
class Outbox {
 public:
  Outbox(const Options& options, const Topics& topics, const Log& log);

  // Every row is to be published, those that have been already included.
  void Restart();
  // Nothing is to be published until Restart().
  void Rest();

  // The next row, the one that changed first in its table; no table waits for ever. False if there is none: from then
  // on Descriptor() becomes readable when there may be one.
  bool Take(OutRow& row);
  int Descriptor() const { return alarm_.Descriptor(); }
  // Whether Take() has nothing until Descriptor() is readable.
  bool IsDrained() const { return alarm_.IsSet(); }

  // No broker keeps an empty retained message, so rows with an empty value have to be published now and then again.
  // This begins a walk through all rows.
  void StartWalk();
  bool IsWalking() const { return walk_ != nullptr; }
  // Walks on for a short time. Whether it has come upon a row with an empty value.
  bool TakeEmpty(OutRow& row);

  // The value that a row has now; nothing if there is no such row.
  std::optional<std::string> ValueOf(const std::string& topic) const;

 private:
  struct SharedTable {
    std::string topic;  // Up to the key.
    std::shared_ptr<Varnix::Table> table;
    std::shared_ptr<Varnix::Watcher> changes;  // Null while we rest.
  };
  struct Database {
    std::string name;
    std::shared_ptr<Varnix::Watcher> new_tables;
  };

  std::optional<Alarm::Change> NextChange();
  std::optional<Alarm::Change> TakeInTurn();
  std::optional<Alarm::Change> TakeNewTable();
  // The database whose new table this change is; null if it is no new table.
  const Database* DatabaseOfNewTable(const Alarm::Change& change) const;
  void LearnTables(const Database& database, const std::string& table);
  void AddTable(const std::string& database, const std::string& table);
  void MakeSet();
  static void SetRow(OutRow& row, const SharedTable& table, Varnix::Row&& content);
  void WalkOn();

  const Options& options_;
  const Topics& topics_;
  const Log& log_;
  Alarm alarm_;
  std::vector<Database> databases_;
  std::vector<SharedTable> tables_;
  std::unordered_map<const Varnix::Watcher*, std::size_t> table_of_;  // Index by watcher.
  std::shared_ptr<Varnix::WatcherSet> changes_;                       // Null while we rest.
  std::size_t turn_ = 0;                                              // Which table is asked before the set.
  int taken_in_turn_ = 0;
  std::size_t walked_tables_ = 0;
  std::shared_ptr<Varnix::Watcher> walk_;  // Of the table after these; null when there is no walk.
};
