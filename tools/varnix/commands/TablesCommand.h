// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <map>
#include <string>
#include <utility>

#include "commands/ObserverCommand.h"

// `varnix tables`: each table of each member, with the number of its rows and the bytes of their keys and values.
class TablesCommand : public ObserverCommand {
 public:
  explicit TablesCommand(const Options& options);

 private:
  using Sizes = std::map<std::string, std::size_t>;  // Of the value of each key. Members may choose keys of one hash.
  struct Tables {
    Member member;
    std::map<std::string, Sizes> sizes;
    std::string name;  // Of the member, printable; only at the end.
  };

  std::size_t OnRow(const Member& member, const Row& row) override;
  void OnEnd(const Member& member, const End& end) override;
  bool Finish() override;
  void Print(const Tables& tables, const std::string& table, const Sizes& sizes);

  std::map<Place, Tables> tables_;
  std::size_t member_width_ = 0, table_width_ = 0;
};
