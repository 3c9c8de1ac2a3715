// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include "net/Audience.h"
#include "text/JsonObject.h"

// What the command writes as JSON of a row and of a member. The object may get more behind that.
void Describe(JsonObject& object, const Member& member, const Row& row);
void Describe(JsonObject& object, const Member& member);
