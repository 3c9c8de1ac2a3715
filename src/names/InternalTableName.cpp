// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "names/InternalTableName.h"

std::string InternalTableName(const std::string& kind, const std::string& database) {
  return "_vrx_." + kind + "." + database;
}
