// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// A row as a line of JSON has it; see RowPrinter. Who has set it is of no interest here.
struct JsonRow {
  std::string table, key, value;
  std::optional<std::int64_t> time_us;
};

// What is wrong with the line, or nothing.
std::string ParseJsonRow(std::string_view line, JsonRow& row);

// Whether the line is no valid JSON. Then its rest may be missing.
bool MayBeTorn(std::string_view line);
