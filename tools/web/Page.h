// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <string_view>

// A file of the page, as it was when this program was built.
struct PageFile {
  const char* path;  // As a regular expression.
  const char* type;
  std::string_view text;
};

extern const PageFile kPageFiles[4];
