// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "web/Feed.h"
#include "web/WebModel.h"

// What Prometheus scrapes. Keys and tables are no labels: their number has no bound.
class MetricsFeed : public Feed {
 public:
  MetricsFeed(const WebModel& model, std::size_t browsers, std::int64_t started_us);

  bool HasMore() const override { return !done_; }
  void Fill(std::string& out) override;

 private:
  void WriteSingles(std::string& out) const;

  const WebModel& model_;
  const std::size_t browsers_;
  const std::int64_t started_us_;
  bool begun_ = false, done_ = false;
  // How far it has come: to this member, in this one of the metrics that have a sample for each.
  std::size_t metric_ = 0;
  std::optional<Place> member_;
};
