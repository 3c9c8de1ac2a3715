// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "Inbox.h"

#include <algorithm>
#include <utility>

namespace {

constexpr std::size_t kLongestValue = 1'048'575;
constexpr std::size_t kLongestTableName = 255;
constexpr std::size_t kLongestCombinedKey = 4095;  // One byte, the name of the table, the key.

}  // namespace

Inbox::Inbox(const Options& options, const Topics& topics, Group& group, const Log& log)
    : options_(options), topics_(topics), group_(group), refusals_(log, "messages were left out") {}

void Inbox::JoinDatabases() {
  for (const std::string& site : options_.imports) {
    for (const std::string& database : options_.databases) DatabaseOf(ImportedDatabase(database, site));
  }
}

std::vector<std::string> Inbox::Filters() const {
  std::vector<std::string> filters;
  for (const std::string& database : options_.databases) {
    if (options_.import_every_site) {
      filters.push_back(topics_.RowsOfEverySite(database));
    } else {
      for (const std::string& site : options_.imports) filters.push_back(topics_.RowsOfSite(site, database));
    }
  }
  return filters;
}

void Inbox::Take(std::string_view topic, std::string_view payload) {
  std::optional<std::string> key = DecodePart(topic.substr(topic.rfind('/') + 1));
  if (!key) return Refuse(topic, "it names no row");
  const Target* const target = FindTarget(topic);
  if (target != nullptr) Set(*target, topic, std::move(*key), payload);
}

const Inbox::Target* Inbox::FindTarget(std::string_view topic) {
  const auto known = targets_.find(topic.substr(0, topic.rfind('/') + 1));
  return known != targets_.end() ? &known->second : MakeTarget(topic);
}

const Inbox::Target* Inbox::MakeTarget(std::string_view topic) {
  const auto refuse = [&](const std::string& why) { return Refuse(topic, why), nullptr; };
  const std::optional<RowTopic> parts = topics_.Split(topic);
  if (!parts) return refuse("it names no row");
  const std::optional<std::string> site = DecodePart(parts->site), database = DecodePart(parts->database),
                                   table = DecodePart(parts->table);
  if (!site || !database || !table) return refuse("it names no row");
  if (*site == options_.site) return nullptr;  // "Every site" is ours, too.
  if (!WhatIsWrongWithName(*site, kLongestSite).empty()) return refuse("no site has such a name");
  if (!IsAskedFor(*site, *database)) return refuse("it was not asked for");
  if (*table == kOwnTable) return refuse("bridges have a table of this name to themselves");
  if (table->size() > kLongestTableName) {
    return refuse("the name of its table has " + std::to_string(table->size()) + " bytes, more than 255");
  }
  const std::string name = ImportedDatabase(*database, *site);
  Database* const imported = DatabaseOf(name);
  if (imported == nullptr) {
    return refuse("there are " + std::to_string(group_.MostDatabases()) + " databases, and more are not imported");
  }
  Target target{Varnix::MakeSharedTable(name, *table), imported, table->size()};
  return &targets_.emplace(topic.substr(0, topic.rfind('/') + 1), std::move(target)).first->second;
}

// Brokers can be set to send what nobody has subscribed to.
bool Inbox::IsAskedFor(const std::string& site, const std::string& database) const {
  const std::vector<std::string>& ours = options_.databases;
  return options_.ImportsFrom(site) && std::find(ours.begin(), ours.end(), database) != ours.end();
}

Inbox::Database* Inbox::DatabaseOf(const std::string& name) {
  const auto known = databases_.find(name);
  if (known != databases_.end()) return &known->second;
  if (!group_.Join(name)) return nullptr;
  Database database;
  database.own_table = Varnix::MakeSharedTable(name, kOwnTable);
  return &databases_.emplace(name, std::move(database)).first->second;
}

void Inbox::Refuse(std::string_view topic, const std::string& why) {
  refusals_.Write("A message is left out: " + why + ". Its topic is '" + Printable(topic) + "'.");
}

void Inbox::Set(const Target& target, std::string_view topic, std::string&& key, std::string_view value) {
  if (value.size() > kLongestValue) {
    return Refuse(topic, "its value has " + std::to_string(value.size()) + " bytes, more than 1048575");
  }
  const std::size_t combined = 1 + target.table_name_size + key.size();
  if (combined > kLongestCombinedKey) {
    return Refuse(topic, "1 and its table and its key have " + std::to_string(combined) + " bytes, more than 4095");
  }
  row_.first = std::move(key);
  row_.second = value;
  target.table->Set(row_);
  if (value.empty() && !target.database->has_empty_value) {
    target.database->has_empty_value = true;
    with_empty_values_.push_back(target.database);
  }
}

void Inbox::LetEmptyValuesLeave() {
  for (Database* const database : with_empty_values_) {
    database->has_empty_value = false;
    SetOwnRow(*database);
  }
  with_empty_values_.clear();
}

void Inbox::Beat() {
  for (auto& [name, database] : databases_) SetOwnRow(database);
}

void Inbox::SetOwnRow(Database& database) {
  database.beat = !database.beat;
  database.own_table->Set({"beat", database.beat ? "1" : "0"});
}

void Inbox::Tick() { refusals_.Tick(); }
