// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <Varnix.h>

#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "varnix_c.h"

// What the handles stand for.

struct varnix_table {
  std::shared_ptr<Varnix::Table> table;
};

struct varnix_table_list {
  std::vector<std::pair<std::string, std::shared_ptr<Varnix::Table>>> tables;
};

// Lives on in the sets that it is in, so that a change can name it: `own` is the reference that its owner has.
struct varnix_watcher {
  std::shared_ptr<Varnix::Watcher> watcher;
  std::shared_ptr<varnix_watcher> own;
};

struct varnix_watcher_set {
  std::unordered_map<const Varnix::Watcher*, std::shared_ptr<varnix_watcher>> handles;
  std::shared_ptr<Varnix::WatcherSet> set;
};

// A change, and the bytes to which it points.
struct Change : varnix_change {
  Varnix::Row row;
};
