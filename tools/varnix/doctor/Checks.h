// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <vector>

#include "doctor/Evidence.h"
#include "doctor/Finding.h"

// Why do they not meet? Each check looks at the evidence alone.

// What there is to say of this device before anybody was looked for: route, port.
std::vector<Finding> CheckHost(const Evidence& evidence);

// What there is to say in the end: own, group, database, then each step of a conversation with the members.
std::vector<Finding> CheckMembers(const Evidence& evidence);
