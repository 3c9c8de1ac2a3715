// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include "Log.h"
#include "Options.h"

// Our membership in the sharing group: one for each database, ours and imported.
class Group {
 public:
  Group(const Options& options, const Log& log);

  // Whether the database is shared from now on. It is not when there are too many: each is a member of the group by
  // itself, all members call each other, and the library ends a process that has no descriptors left.
  bool Join(const std::string& database);
  std::size_t MostDatabases() const { return most_; }
  // Now and then: calls for the other members, if a database has been joined.
  void Tick();

 private:
  const Options& options_;
  const Log& log_;
  const std::size_t most_;
  std::size_t joined_ = 0;
  bool calls_ = false;  // There are databases that the others have not been called for.
  std::chrono::steady_clock::time_point next_call_{};
};
