// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <string>
#include <string_view>

// In what a name differs from one that looks the same to a person: "upper and lower case", "blanks", "zero bytes", or
// several of them. Empty if they are equal, or differ in more.
std::string NearMiss(std::string_view left, std::string_view right);
