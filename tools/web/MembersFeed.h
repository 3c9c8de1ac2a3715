// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <optional>
#include <string>

#include "web/Feed.h"
#include "web/WebModel.h"

// The members as lines of JSON, by place.
class MembersFeed : public Feed {
 public:
  explicit MembersFeed(const WebModel& model) : model_(model) {}

  bool HasMore() const override { return !done_; }
  void Fill(std::string& out) override;

 private:
  const WebModel& model_;
  std::optional<Place> last_;  // The place of the last one that was written.
  bool done_ = false;
};
