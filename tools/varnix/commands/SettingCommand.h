// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <string>

#include "commands/Session.h"
#include "net/OwnTable.h"
#include "net/Setter.h"

// A command that sets rows as a member of its own, and what all of those have in common: they meet the members, see
// that each has taken every row, and leave.
class SettingCommand {
 public:
  explicit SettingCommand(const Options& options);
  virtual ~SettingCommand() = default;

  // The exit status.
  int Run();

 protected:
  // Sets the rows that are there by now. Returns whether they were the last.
  virtual bool Feed() = 0;

  // When the next row is due.
  virtual TimePoint NextRow() const { return TimePoint::max(); }

  // Adds a row; what cannot be sent is told, with `where` it comes from, and left out.
  void Set(const std::string& table, const std::string& key, std::string value, const std::string& where = "");

  // Something was left out.
  void Fail(const std::string& note);

  Session session_;

 private:
  enum class Phase { kFeeding, kMeeting, kHolding, kFinishing, kDone };

  void Turn();
  void Step();
  void EndFeeding();
  void EndMeeting();
  void Finish();
  bool IsSettled() const;
  TimePoint EndOfMeeting() const;
  TimePoint NextStep() const;
  void NoteTrouble();
  std::string ProgressText() const;
  std::string TakenText() const;
  int EndStatus();

  OwnTable rows_;
  Setter setter_;
  Phase phase_ = Phase::kFeeding;
  TimePoint end_ = TimePoint::max();  // When all has to be over, as far as that is known.
  bool failed_ = false, announcing_told_ = false;
};
