// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <optional>
#include <string>

#include "web/Feed.h"
#include "web/RowCursor.h"

// The rows of one table, or of all, as lines of JSON, by member, table and key. Each is written once, with the value
// that it has when it is written.
class RowsFeed : public Feed {
 public:
  RowsFeed(const WebModel& model, std::optional<std::string> table);

  bool HasMore() const override { return !done_; }
  void Fill(std::string& out) override;

 private:
  RowCursor rows_;
  bool done_ = false;
};
