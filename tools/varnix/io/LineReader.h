// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "net/FileDescriptor.h"
#include "net/Loop.h"

// Reads lines from a descriptor as they come, no more of them than somebody takes.
class LineReader : public Waiter {
 public:
  LineReader(Loop& loop, int descriptor) : Waiter(loop), descriptor_(descriptor) {}

  // The next line, without its newline, if it has come. Valid until the next turn of the loop.
  std::optional<std::string_view> Next();

  // Whether everything has come. What is left then, and has no newline, is the torn end of a line.
  bool IsAtEnd() const { return at_end_; }
  std::string_view Torn() const { return std::string_view(text_).substr(taken_); }

  // Whether that is so because a line is too long. It is left then, and all behind it.
  bool IsTooLong() const { return too_long_; }

  // 0, or the error number with which reading failed, which is the end, too.
  int Error() const { return error_; }

  // The number of the line that Next() has returned last.
  std::size_t LineNumber() const { return line_number_; }

  pollfd Awaited() const override;
  void OnReady(short events) override;

 private:
  const int descriptor_;
  std::string text_;
  std::size_t taken_ = 0, searched_ = 0;  // So much of text_ was returned; so much of it has no newline behind that.
  std::size_t line_number_ = 0;
  bool at_end_ = false, too_long_ = false;
  int error_ = 0;
};
