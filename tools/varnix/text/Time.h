// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// Points in time are microseconds since 1970, and texts are like 2026-11-22T04:17:29.123456Z.
std::int64_t TimeNow();

std::string TimeText(std::int64_t time_us);

// Takes up to six decimals, or none. Nothing for what is no such text.
std::optional<std::int64_t> ParseTime(std::string_view text);
