// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <string>

// "_vrx_." + kind + "." + database: the name of one of the library's own tables. Nothing is escaped.
std::string InternalTableName(const std::string& kind, const std::string& database);
