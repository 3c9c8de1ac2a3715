// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <string>

// A string keeps its memory when it becomes shorter. These functions keep what the next value is likely to need, so
// that rows of usual sizes need no allocation, and give back what only the longest value so far has needed.

// Assigns. New memory is no larger than the value. Memory of more than 1 KiB is given back if three quarters of it
// would be unused.
void AssignAndTrim(std::string& stored, const std::string& value);

// Empties a string that will hold the next value. Memory of more than 4 KiB is given back.
void EmptyForReuse(std::string& place);
