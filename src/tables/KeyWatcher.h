// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tables/LWatcher.h"

// Reports the row of one key: its present value first, if it has one, then the newest value after each burst of
// changes.
class LocalTable::KeyWatcher final : public LWatcher {
 public:
  // `row` is that of the key, or the end of the table's rows.
  KeyWatcher(std::shared_ptr<LocalTable> table, std::string key, Position row) noexcept;
  ~KeyWatcher() override;

  const std::string& Key() const { return key_; }
  // The end of the table's rows while the key has no row.
  Position WatchedRow() const VARNIX_REQUIRES(table_lock) { return row_; }

  std::vector<Varnix::Row> GetChanges() override VARNIX_EXCLUDES(table_lock);
  void RowInserted(Position position) override VARNIX_REQUIRES(table_lock);
  void RowUpdated(Position position) override VARNIX_REQUIRES(table_lock);
  bool Empty() const override VARNIX_REQUIRES(table_lock);
  Varnix::Row Take() override VARNIX_REQUIRES(table_lock);

 private:
  void Changed() VARNIX_REQUIRES(table_lock);

  Position row_ VARNIX_GUARDED_BY(table_lock);
  const std::string key_;
  bool changed_ VARNIX_GUARDED_BY(table_lock);
};
