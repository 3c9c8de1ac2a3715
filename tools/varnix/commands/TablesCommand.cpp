// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "commands/TablesCommand.h"

#include <unistd.h>

#include <algorithm>

#include "text/JsonObject.h"
#include "text/Printable.h"

namespace {

constexpr std::size_t kBesidesKey = 96;    // What an entry takes in memory besides its key,
constexpr std::size_t kBesidesName = 256;  // and a table besides its name and its entries.
constexpr std::size_t kMostColumns = 40;   // One long name does not push everything else to the right.

std::string Padded(const std::string& text, std::size_t width) {
  return text + std::string(width - std::min(width, Columns(text)), ' ');
}

}  // namespace

TablesCommand::TablesCommand(const Options& options) : ObserverCommand(options, {}, STDOUT_FILENO) {}

std::size_t TablesCommand::OnRow(const Member& member, const Row& row) {
  Tables& tables = tables_[member.place];
  if (tables.sizes.empty()) tables.member = member;
  const auto [table, is_new_table] = tables.sizes.try_emplace(std::string(row.table));
  const auto [entry, is_new] = table->second.insert_or_assign(std::string(row.key), row.value.size());
  return (is_new ? row.key.size() + kBesidesKey : 0) + (is_new_table ? row.table.size() + kBesidesName : 0);
}

void TablesCommand::OnEnd(const Member& member, const End& end) {
  tables_.erase(member.place);
  ObserverCommand::OnEnd(member, end);
}

bool TablesCommand::Finish() {
  for (auto& [place, tables] : tables_) {
    tables.name = NameText(tables.member);
    member_width_ = std::max(member_width_, Columns(tables.name));
    for (const auto& entry : tables.sizes) table_width_ = std::max(table_width_, Columns(Printable(entry.first)));
  }
  member_width_ = std::min(member_width_, kMostColumns);
  table_width_ = std::min(table_width_, kMostColumns);
  for (const auto& [place, tables] : tables_) {
    for (const auto& [table, sizes] : tables.sizes) {
      if (session_.IsEndedFromOutside()) return false;
      Print(tables, table, sizes);
    }
  }
  if (tables_.empty()) NoteNothing("no row");
  return !tables_.empty();
}

void TablesCommand::Print(const Tables& tables, const std::string& table, const Sizes& sizes) {
  std::uint64_t bytes = 0;  // They are only counted, so they may be more than memory can hold.
  for (const auto& [key, value_size] : sizes) bytes += key.size() + value_size;
  std::string& out = session_.output.Text();
  if (session_.options.json) {
    JsonObject(out)
        .Text("device", tables.member.device)
        .Text("process", tables.member.process)
        .Text("address", AddressText(tables.member.place.address))
        .Text("table", table)
        .Number("rows", sizes.size())
        .Number("bytes", bytes)
        .End();
  } else {
    out += Padded(tables.name, member_width_) + "  " + Padded(Printable(table), table_width_) + "  " +
           CountText(sizes.size(), "row") + "  " + CountText(bytes, "byte") + "\n";
  }
  session_.output.FlushMuch();
}
