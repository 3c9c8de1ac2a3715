// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstdint>
#include <string>

#include "Options.h"
#include "io/Output.h"
#include "io/Progress.h"
#include "io/Signals.h"
#include "net/Loop.h"
#include "net/Member.h"
#include "net/Observer.h"

// What every command has while it runs.
struct Session {
  Session(const Options& command_options, int output_descriptor);

  // How long members are looked for.
  TimePoint End() const;
  double WaitSeconds() const;

  // Our own identity, as it is on the wire.
  std::string Identity() const;

  // Says that announcements are not heard, if there is an error number of that; where there is no other way to meet
  // anybody, as std::system_error.
  void NoteHearing(int error);

  // How the command ends, if something from outside has ended it: by a signal, or because nobody reads its output.
  // After an interrupt by the terminal this is `interrupted`; other signals end the process.
  bool IsEndedFromOutside();
  int StatusFromOutside(Status interrupted);

  const Options options;
  const TimePoint begun = Clock::now();
  Loop loop;
  Signals signals{loop};
  Progress progress;
  Output output;
};

// An observer of what the command line names, which wants every row and change.
Observer::Settings ObserverSettings(const Session& session);

// "press::ctl".
std::string NameText(const Member& member);

// "press::ctl at 10.0.0.1:40213", or its address alone as long as it has said nothing.
std::string NameAndPlaceText(const Member& member);

// "1 member", "2 members".
std::string CountText(std::uint64_t count, const std::string& noun);

// "5 s", "0.5 s".
std::string SecondsText(double seconds);
