// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <optional>
#include <string>
#include <string_view>

std::string Base64(std::string_view bytes);

// Nothing for what is not base64, with its padding.
std::optional<std::string> FromBase64(std::string_view text);
