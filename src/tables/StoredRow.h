// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <Varnix.h>

#include <list>

// A row as a table keeps it.
struct StoredRow {
  explicit StoredRow(const Varnix::Row& row) : content(row) {}

  Varnix::Row content;
  unsigned key_watcher_count = 0;  // Most rows have none: their changes need no search for watchers.
};

using StoredRows = std::list<StoredRow>;
