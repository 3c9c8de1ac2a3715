// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <chrono>
#include <string>

#include "net/Loop.h"

// One line on standard error that shows what a command is busy with, and what it has to say for good. The line is
// there only on a terminal.
class Progress {
 public:
  // What takes longer shows its progress, so often.
  static constexpr std::chrono::seconds kSilence{1};
  static constexpr std::chrono::milliseconds kPace{200};

  Progress();
  ~Progress() { Clear(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  bool IsShown() const { return terminal_; }

  // Both must be printable. Of the text so much is left out that the line has room for the end.
  void Show(const std::string& text, const std::string& end);
  void Clear();

  // "varnix: " and the text, which must be printable.
  void Note(const std::string& text);

 private:
  const bool terminal_;
  bool dirty_ = false;
  TimePoint shown_{};
};
