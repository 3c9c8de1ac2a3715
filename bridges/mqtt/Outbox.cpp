// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "Outbox.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "Inbox.h"

Outbox::Outbox(const Options& options, const Topics& topics, const Log& log)
    : options_(options), topics_(topics), log_(log) {
  for (const std::string& database : options.databases) {
    databases_.push_back({database, Varnix::GetTableTable(database)->WatchAll()});
  }
}

void Outbox::Restart() {
  Rest();
  for (SharedTable& table : tables_) table.changes = table.table->WatchAll();
  MakeSet();
}

void Outbox::Rest() {
  // Rows are asked for again by Restart(), but nobody tells of a table twice.
  const std::optional<Alarm::Change> taken = alarm_.Recall();
  const Database* database = taken ? DatabaseOfNewTable(*taken) : nullptr;
  if (database != nullptr) AddTable(database->name, taken->first.first);
  changes_ = nullptr;
  walk_ = nullptr;
  table_of_.clear();
  for (SharedTable& table : tables_) table.changes = nullptr;
}

bool Outbox::Take(OutRow& row) {
  while (std::optional<Alarm::Change> change = NextChange()) {
    const auto table = table_of_.find(change->second.get());
    if (table != table_of_.end()) {
      SetRow(row, tables_[table->second], std::move(change->first));
      return true;
    }
    if (const Database* database = DatabaseOfNewTable(*change)) LearnTables(*database, change->first.first);
  }
  return false;
}

const Outbox::Database* Outbox::DatabaseOfNewTable(const Alarm::Change& change) const {
  const auto database = std::find_if(databases_.begin(), databases_.end(),
                                     [&](const Database& one) { return one.new_tables == change.second; });
  return database == databases_.end() ? nullptr : &*database;
}

std::optional<Alarm::Change> Outbox::NextChange() {
  if (changes_ == nullptr || alarm_.IsSet()) return std::nullopt;
  if (std::optional<Alarm::Change> change = alarm_.Take()) return change;
  if (std::optional<Alarm::Change> change = TakeInTurn()) return change;
  Alarm::Change change = changes_->WaitUntil(std::chrono::steady_clock::time_point::min());
  if (change.second != nullptr) return change;
  alarm_.Set(changes_);
  return std::nullopt;
}

// A set promises nothing about whose change comes first, so a table in which something always changes could keep all
// others waiting, also those that are not known yet. So before the set is asked, the tables are, each in its turn and
// for some rows at a time; and between two turns, whether there are new ones.
std::optional<Alarm::Change> Outbox::TakeInTurn() {
  constexpr int kRowsAtATime = 64;
  if (taken_in_turn_ == 0) {
    if (std::optional<Alarm::Change> change = TakeNewTable()) return change;
  }
  if (tables_.empty()) return std::nullopt;
  const SharedTable& table = tables_[turn_];
  std::vector<Varnix::Row> rows = table.changes->GetChanges();
  if (rows.empty() || ++taken_in_turn_ == kRowsAtATime) {
    turn_ = (turn_ + 1) % tables_.size();
    taken_in_turn_ = 0;
  }
  if (rows.empty()) return std::nullopt;
  return Alarm::Change{std::move(rows.front()), table.changes};
}

std::optional<Alarm::Change> Outbox::TakeNewTable() {
  for (const Database& database : databases_) {
    std::vector<Varnix::Row> tables = database.new_tables->GetChanges();
    if (!tables.empty()) return Alarm::Change{std::move(tables.front()), database.new_tables};
  }
  return std::nullopt;
}

// Takes all tables that have become known, so that the set is made once for all of them.
void Outbox::LearnTables(const Database& database, const std::string& table) {
  AddTable(database.name, table);
  for (;;) {
    const std::vector<Varnix::Row> rows = database.new_tables->GetChanges();
    if (rows.empty()) break;
    AddTable(database.name, rows.front().first);
  }
  MakeSet();
}

void Outbox::AddTable(const std::string& database, const std::string& table) {
  if (table == Inbox::kOwnTable) {
    log_.Warning("The table '" + table + "' of database '" + Printable(database) +
                 "' is not published: bridges have one of that name to themselves.");
    return;
  }
  log_.Info("Publishing the table '" + Printable(table) + "' of database '" + Printable(database) + "'.");
  SharedTable added{topics_.Table(options_.site, database, table), Varnix::MakeSharedTable(database, table), nullptr};
  added.changes = added.table->WatchAll();
  tables_.push_back(std::move(added));
}

void Outbox::MakeSet() {
  std::vector<std::shared_ptr<Varnix::Watcher>> watchers = {alarm_.MakeRecallWatcher()};
  for (const Database& database : databases_) watchers.push_back(database.new_tables);
  table_of_.clear();
  for (std::size_t i = 0; i < tables_.size(); ++i) {
    watchers.push_back(tables_[i].changes);
    table_of_[tables_[i].changes.get()] = i;
  }
  changes_ = Varnix::MakeWatcherSet(std::move(watchers));
}

void Outbox::SetRow(OutRow& row, const SharedTable& table, Varnix::Row&& content) {
  row.topic = table.topic + EncodePart(content.first);
  row.value = std::move(content.second);
}

void Outbox::StartWalk() {
  walked_tables_ = 0;
  WalkOn();
}

// To the first table that has not been walked through.
void Outbox::WalkOn() { walk_ = walked_tables_ < tables_.size() ? tables_[walked_tables_].table->WatchAll() : nullptr; }

bool Outbox::TakeEmpty(OutRow& row) {
  constexpr int kRowsAtATime = 1000;
  for (int i = 0; i < kRowsAtATime && walk_ != nullptr; ++i) {
    std::vector<Varnix::Row> rows = walk_->GetChanges();
    if (rows.empty()) {
      ++walked_tables_;
      WalkOn();
    } else if (rows.front().second.empty()) {
      SetRow(row, tables_[walked_tables_], std::move(rows.front()));
      return true;
    }
  }
  return false;
}

std::optional<std::string> Outbox::ValueOf(const std::string& topic) const {
  const std::size_t key = topic.rfind('/') + 1;
  const auto table = std::find_if(tables_.begin(), tables_.end(),
                                  [&](const SharedTable& one) { return topic.compare(0, key, one.topic) == 0; });
  const std::optional<std::string> bytes = DecodePart(std::string_view(topic).substr(key));
  if (table == tables_.end() || !bytes) return std::nullopt;
  std::vector<Varnix::Row> rows = table->table->Watch(*bytes)->GetChanges();
  if (rows.empty()) return std::nullopt;
  return std::move(rows.front().second);
}
