// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <string>

#include "io/Progress.h"
#include "io/Signals.h"
#include "net/Loop.h"

// Lines for standard output, or for another descriptor. They leave at the end of each turn of the loop, so each is
// written when it is known. Waits for a slow reader, which slows the members down in turn; a signal ends that wait. The
// Clock leaves that time out.
class Output : public Waiter {
 public:
  Output(Loop& loop, const Signals& signals, Progress& progress, int descriptor);

  // The text that is not written yet, to be added to.
  std::string& Text() { return text_; }

  void Flush();

  // Writes what is there once it is much.
  void FlushMuch();

  // Whether nobody reads any more.
  bool IsClosed() const { return closed_; }

  // 0, or the error number with which writing failed for another reason.
  int Error() const { return error_; }

  bool IsTerminal() const { return terminal_; }

  pollfd Awaited() const override { return {closed_ ? -1 : descriptor_, 0, 0}; }
  void OnReady(short events) override;

 private:
  bool WaitForReader() const;
  bool WritePiece();

  const Signals& signals_;
  Progress& progress_;
  const int descriptor_;
  const bool terminal_;
  std::string text_;
  std::size_t written_ = 0;  // So much of text_.
  bool closed_ = false;
  int error_ = 0;
};
