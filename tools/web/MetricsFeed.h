// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "web/WebModel.h"

// What Prometheus scrapes. Keys and tables are no labels: their number has no bound.
std::string MetricsText(const WebModel& model, std::size_t browsers, std::int64_t started_us);
