// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <optional>
#include <string>

#include "web/WebModel.h"

// Goes through the rows of a model by member, table and key. The model may change between two steps.
class RowCursor {
 public:
  // Of one table, or of all.
  explicit RowCursor(const WebModel& model, std::optional<std::string> table = std::nullopt);

  // The next row; null behind the last.
  const WebModel::RowEntry* Next();

 private:
  const WebModel::RowEntry* NextOf(const WebModel::MemberEntry& member);
  const WebModel::RowEntry* NextOf(const WebModel::Tables::value_type& table);

  const WebModel& model_;
  const std::optional<std::string> only_;
  // How far it has come: to this key of this table of this member.
  Place place_;
  std::string table_;
  std::optional<std::string> key_;
};
