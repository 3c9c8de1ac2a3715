// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <optional>
#include <string>

#include "web/Feed.h"
#include "web/WebModel.h"

// The rows of one table, or of all, as lines of JSON, by member, table and key. Each is written once, with the value
// that it has when it is written.
class RowsFeed : public Feed {
 public:
  RowsFeed(const WebModel& model, std::optional<std::string> table);

  bool HasMore() const override { return !done_; }
  void Fill(std::string& out) override;

 private:
  // False when the text is long enough.
  bool WriteMember(std::string& out, const WebModel::MemberEntry& member, std::size_t enough);
  bool WriteRows(std::string& out, const WebModel::Rows& rows, std::size_t enough);

  const WebModel& model_;
  const std::optional<std::string> only_;
  bool done_ = false;
  // How far it has come: to this key of this table of this member.
  Place place_;
  std::string table_;
  std::optional<std::string> key_;
};
