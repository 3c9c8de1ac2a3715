// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <map>
#include <string>

#include "commands/ObserverCommand.h"

// `varnix get`: the value of one row.
class GetCommand : public ObserverCommand {
 public:
  explicit GetCommand(const Options& options);

 private:
  struct Value {
    Member member;
    std::string value;
    std::int64_t time_us = 0;
    std::uint64_t number = 0;  // In the order in which they came.
  };

  std::size_t OnRow(const Member& member, const Row& row) override;
  void OnEnd(const Member& member, const End& end) override;
  bool Finish() override;
  void WarnOfSeveral(const Value& last);
  void Print(const Value& value);

  std::map<Place, Value> values_;
  std::uint64_t arrived_ = 0;
};
