// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Text from the network, fit for a terminal: characters that one can see stand as they are, and every byte of anything
// else as \xNN. A backslash stands as \\, so that nothing looks like what it is not.
std::string Printable(std::string_view text);

// The same whatever the terminal shows: for what other programs read.
std::string PrintableUtf8(std::string_view text);

// With at most so many columns; where text is left out, it ends in "~".
std::string Printable(std::string_view text, std::size_t most_columns);

// How many columns of a terminal a printable text takes.
std::size_t Columns(std::string_view printable);

// The beginning of a printable text that takes at most so many columns.
std::string Cut(std::string_view printable, std::size_t most_columns);

// Whether characters beyond ASCII are shown as they are; they are, unless this is told.
void ShowAsciiOnly();
