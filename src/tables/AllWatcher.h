// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <memory>
#include <vector>

#include "tables/LWatcher.h"

// Reports every row of a table once, oldest change first, and then each further change in the order of the changes.
class LocalTable::AllWatcher final : public LWatcher {
 public:
  // `first` is the first row to report.
  AllWatcher(std::shared_ptr<LocalTable> table, Position first) noexcept;
  ~AllWatcher() override;

  std::vector<Varnix::Row> GetChanges() override VARNIX_EXCLUDES(table_lock);
  void RowInserted(Position position) override VARNIX_REQUIRES(table_lock);
  void RowUpdated(Position position) override VARNIX_REQUIRES(table_lock);
  bool Empty() const override VARNIX_REQUIRES(table_lock);
  Varnix::Row Take() override VARNIX_REQUIRES(table_lock);

 private:
  Position cursor_ VARNIX_GUARDED_BY(table_lock);  // The next row to report.
};
