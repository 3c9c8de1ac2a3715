// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <set>

#include "commands/Session.h"
#include "io/NoteLimit.h"
#include "net/Audience.h"
#include "net/Observer.h"

// A command that looks at what members have set, and what all of those have in common: how long they go on, what they
// say on standard error, and their exit status.
class ObserverCommand : public Audience {
 public:
  // What tells the commands apart.
  struct Kind {
    bool living = false;  // Goes on until it is interrupted.
    bool wants_rows = true;
    bool until_settled = true;  // Ends as soon as nothing more seems to come, and not only after the whole time.
  };

  ObserverCommand(const Options& options, const Kind& kind, int output_descriptor);

  // The exit status.
  int Run();

 protected:
  // Whether all has come that was asked for.
  virtual bool IsDone() { return false; }

  // Once, at the end of a command that ends by itself: prints what remains, and returns whether there was anything.
  virtual bool Finish() = 0;

  // How far it is: what it shows on a terminal in the meantime, behind whom it looks for.
  virtual std::string ProgressText() const;

  void OnEnd(const Member& member, const End& end) override;

  // Says that `what` was not there, if there was anybody to have it.
  void NoteNothing(const std::string& what);

  const CountsByAddress& Strange() const { return observer_.Strange(); }

  Session session_;

 private:
  bool IsBounded() const;
  bool IsOver();
  void Turn();
  TimePoint NextStep() const;
  void ShowProgress();
  void NoteTrouble();
  void NoteLeftOut(TimePoint now);
  void ForgetMany();
  void NoteUnfinished();
  int EndStatus();
  std::string WhomText() const;

  const Kind kind_;
  Observer observer_;
  std::set<Place> told_;     // Members in trouble that were named, or counted,
  std::set<Place> unnamed_;  // and those of them that were only counted.
  NoteLimit limit_;          // Of what is said of them.
  bool failed_ = false;
  bool nobody_told_ = false, announcing_told_ = false;
};
