// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <string>

#include "Options.h"

// Options of a bridge for one database, which no other test has.
inline Options OptionsOfOwnDatabase() {
  static int count = 0;
  Options options;
  options.site = "hall1";
  options.databases = {"plant" + std::to_string(++count)};
  return options;
}
