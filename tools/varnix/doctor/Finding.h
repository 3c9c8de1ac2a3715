// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <string>

// What one check has found. All texts are printable.
struct Finding {
  bool good = true;
  std::string check;  // In one word.
  std::string seen;
  std::string todo;  // What to do; only where it is not good.
  std::string log;   // What the log of a member shows then; only where it is not good.
};
