// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstddef>

// The longest fields that a record on the wire has room for. A longer one is cut to its length modulo (limit + 1).
constexpr std::size_t kLongestRecordKey = 0xFFF;
constexpr std::size_t kLongestRecordValue = 0xFFFFF;
