// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <Varnix.h>

#include <functional>
#include <memory>
#include <vector>

// Keeps what is set, in that order. Used by one thread.
class RecordingTable final : public Varnix::Table {
 public:
  void Set(const Varnix::Row& row) override {
    if (before_set) before_set(row);
    rows.push_back(row);
  }
  std::shared_ptr<Varnix::Watcher> Watch(const std::string&) override { return nullptr; }
  std::shared_ptr<Varnix::Watcher> WatchAll() override { return nullptr; }

  std::vector<Varnix::Row> rows;
  std::function<void(const Varnix::Row&)> before_set;
};
