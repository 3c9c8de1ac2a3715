// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "commands/Session.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <system_error>

#include "text/Printable.h"
#include "wire/CombinedKey.h"

namespace {

constexpr double kWaitSeconds = 5, kPassiveWaitSeconds = 61;  // Everybody announces itself once within 60 seconds.
constexpr double kMostSeconds = 1e9;                          // What is longer would leave the range of the clock.

}  // namespace

Session::Session(const Options& command_options, int output_descriptor)
    : options(command_options), output(loop, signals, progress, output_descriptor) {}

double Session::WaitSeconds() const {
  return options.wait_seconds.value_or(options.passive ? kPassiveWaitSeconds : kWaitSeconds);
}

TimePoint Session::End() const {
  const std::chrono::duration<double> wait(WaitSeconds() < kMostSeconds ? WaitSeconds() : kMostSeconds);
  return begun + std::chrono::duration_cast<Clock::duration>(wait);
}

std::string Session::Identity() const { return CombinedKey(options.device, options.process); }

void Session::NoteHearing(int error) {
  if (error == 0) return;
  const std::string what = "announcements are not heard: cannot share UDP port 1975";
  if (options.passive) throw std::system_error(error, std::generic_category(), what);
  progress.Note(what + ": " + std::strerror(error));
}

// A signal may have cut the output off while the loop had no turn.
bool Session::IsEndedFromOutside() {
  signals.Look();
  return signals.First() != 0 || output.IsClosed() || output.Error() != 0;
}

int Session::StatusFromOutside(Status interrupted) {
  progress.Clear();
  if (output.Error() != 0) {
    progress.Note(std::string("cannot write: ") + std::strerror(output.Error()));
    return kFailed;
  }
  if (output.IsClosed()) return kDone;
  if (signals.First() != SIGINT || interrupted != kDone) signals.EndByFirst();
  return interrupted;
}

Observer::Settings ObserverSettings(const Session& session) {
  Observer::Settings settings;
  settings.group = session.options.group;
  settings.database = session.options.database;
  settings.broadcast = session.options.broadcast;
  settings.identity = session.Identity();
  settings.announces = !session.options.passive;
  settings.memory = session.options.limit_mib << 20;
  return settings;
}

std::string NameText(const Member& member) { return Printable(member.device) + "::" + Printable(member.process); }

std::string NameAndPlaceText(const Member& member) {
  if (member.identity.empty()) return PlaceText(member.place);
  return NameText(member) + " at " + PlaceText(member.place);
}

std::string CountText(std::uint64_t count, const std::string& noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string SecondsText(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%g s", seconds);
  return text;
}
