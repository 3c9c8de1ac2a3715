// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <Varnix.h>

#include <chrono>
#include <string>
#include <string_view>

// Bytes of others as they can stand in a line: printable ASCII, everything else as \xNN, and cut after 200 characters.
std::string Printable(std::string_view bytes);

// The log: a line each on standard error. In the journal with its level, elsewhere with the time and the level's name.
//
// Threads: any. Never throws for a full disk or a closed descriptor: such a line is lost.
class Log {
 public:
  using Level = Varnix::LogLevel;

  explicit Log(Level most);

  // Messages of the library come here, too, from now on; those of its level Debug are one for each row.
  void TakeThoseOfTheLibrary() const;

  bool Writes(Level level) const { return level <= most_; }
  void Write(Level level, std::string_view text) const;
  void Error(std::string_view text) const { Write(Level::Error, text); }
  void Warning(std::string_view text) const { Write(Level::Warning, text); }
  void Notice(std::string_view text) const { Write(Level::Notice, text); }
  void Info(std::string_view text) const { Write(Level::Info, text); }

 private:
  const Level most_;
  const bool to_journal_;
};

// Warnings that others can cause as often as they like: five in ten seconds are written, of the rest their number.
class PacedWarnings {
 public:
  using Time = std::chrono::steady_clock::time_point;

  // `what`: as in "1234 more ...".
  PacedWarnings(const Log& log, std::string what) : log_(log), what_(std::move(what)) {}

  void Write(std::string_view text, Time now = std::chrono::steady_clock::now());
  // Writes the number when its time has come.
  void Tick(Time now = std::chrono::steady_clock::now());

 private:
  static constexpr int kAtOnce = 5;
  static constexpr std::chrono::seconds kPeriod{10};

  const Log& log_;
  const std::string what_;
  Time period_end_{};
  int written_ = 0;
  unsigned long left_out_ = 0;
};
