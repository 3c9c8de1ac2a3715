// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "commands/ObserverCommand.h"

#include <algorithm>
#include <cstring>

#include "net/Sockets.h"
#include "text/Printable.h"

namespace {

constexpr std::size_t kMostTold = 4096;

Observer::Settings ToSettings(const ObserverCommand::Kind& kind, const Session& session) {
  Observer::Settings settings = ObserverSettings(session);
  settings.wants_rows = kind.wants_rows;
  settings.wants_changes = kind.living;
  return settings;
}

}  // namespace

ObserverCommand::ObserverCommand(const Options& options, const Kind& kind, int output_descriptor)
    : session_(options, output_descriptor), kind_(kind), observer_(session_.loop, ToSettings(kind, session_), *this) {
  RaiseDescriptorLimit();
  session_.NoteHearing(observer_.HearingError());
}

int ObserverCommand::Run() {
  while (!IsOver()) Turn();
  session_.progress.Clear();
  return EndStatus();
}

// Whether the time that is given ends it.
bool ObserverCommand::IsBounded() const {
  return !kind_.living || (session_.options.count && session_.options.wait_seconds);
}

bool ObserverCommand::IsOver() {
  if (session_.IsEndedFromOutside() || IsDone()) return true;
  if (IsBounded() && Clock::now() >= session_.End()) return true;
  return !kind_.living && kind_.until_settled && observer_.Met() > 0 && observer_.IsSettled();
}

void ObserverCommand::Turn() {
  session_.loop.Turn(NextStep());
  observer_.Tidy();
  session_.output.Flush();
  NoteTrouble();
  NoteLeftOut(Clock::now());
  ShowProgress();
}

TimePoint ObserverCommand::NextStep() const {
  const TimePoint now = Clock::now(), end = session_.End();
  TimePoint next = std::min(observer_.Deadline(), limit_.Deadline());
  if (end > now) next = std::min(next, end);
  if (session_.progress.IsShown()) next = std::min(next, now + Progress::kPace);
  return next;
}

void ObserverCommand::ShowProgress() {
  const bool rows_on_terminal = kind_.living && session_.output.IsTerminal();
  if (Clock::now() - session_.begun < Progress::kSilence || (rows_on_terminal && observer_.Met() > 0)) return;
  session_.progress.Show("Looking for members of " + WhomText(), ProgressText());
}

std::string ObserverCommand::ProgressText() const {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - session_.begun).count();
  return ": " + std::to_string(observer_.Met()) + " met, " + std::to_string(seconds) + " s";
}

std::string ObserverCommand::WhomText() const {
  const Options& options = session_.options;
  std::string text = options.group ? "group \"" + Printable(*options.group) + "\"" : "any group";
  if (options.database) text += " with database \"" + Printable(*options.database) + "\"";
  return text;
}

// Once each.
void ObserverCommand::NoteTrouble() {
  if (observer_.AnnouncingError() != 0 && !announcing_told_) {
    announcing_told_ = true;
    session_.progress.Note("cannot announce to " + AddressText(session_.options.broadcast) + ": " +
                           std::strerror(observer_.AnnouncingError()) + "; members may be heard within a minute");
  }
  if (!IsBounded() && observer_.Met() == 0 && !nobody_told_ && Clock::now() >= session_.End()) {
    nobody_told_ = true;
    session_.progress.Note("nobody of " + WhomText() + " was met within " + SecondsText(session_.WaitSeconds()) +
                           "; looking further ('varnix doctor' says why)");
  }
}

void ObserverCommand::OnEnd(const Member& member, const End& end) {
  const TimePoint now = Clock::now();
  NoteLeftOut(now);  // Before another minute begins.
  ForgetMany();
  const bool first = told_.insert(member.place).second;
  if (end.kind == End::Kind::kClosed && kind_.living) return;
  failed_ = true;
  if (!first && end.kind != End::Kind::kOverLimit) return;
  if (limit_.Admits(now)) {
    session_.progress.Note(NameAndPlaceText(member) + " " + EndText(end));
  } else {
    unnamed_.insert(member.place);
  }
}

void ObserverCommand::ForgetMany() {
  if (told_.size() < kMostTold) return;
  told_.clear();
  unnamed_.clear();
}

// A member that was left out is counted once, and is named when it makes trouble again.
void ObserverCommand::NoteLeftOut(TimePoint now) {
  const std::size_t count = limit_.TakeLeftOut(now);
  if (count == 0) return;
  session_.progress.Note(CountText(count, "more note") + " of this kind left out: a minute has at most " +
                         std::to_string(NoteLimit::kMost));
  for (const Place& place : unnamed_) told_.erase(place);
  unnamed_.clear();
}

void ObserverCommand::NoteUnfinished() {
  for (const Member& member : observer_.Unfinished()) {
    const std::string what = member.identity.empty() ? " has not said who it is" : " was still sending";
    session_.progress.Note(NameAndPlaceText(member) + what + " after " + SecondsText(session_.WaitSeconds()) +
                           "; --wait gives it more");
    failed_ = true;
  }
  if (observer_.Unanswered() == 0) return;
  session_.progress.Note(CountText(observer_.Unanswered(), "connection") + " to us without a word after " +
                         SecondsText(session_.WaitSeconds()) + "; --wait gives them more");
  failed_ = true;
}

void ObserverCommand::NoteNothing(const std::string& what) {
  if (observer_.Met() == 0) return;
  session_.progress.Note(what + ", asked of " + CountText(static_cast<std::size_t>(observer_.Met()), "member"));
}

int ObserverCommand::EndStatus() {
  NoteLeftOut(TimePoint::max());
  const Status interrupted = kind_.living ? kDone : kFailed;
  if (session_.IsEndedFromOutside()) return session_.StatusFromOutside(interrupted);
  if (!kind_.living) NoteUnfinished();
  const bool anything = Finish();
  session_.output.Flush();
  if (session_.IsEndedFromOutside()) return session_.StatusFromOutside(interrupted);
  if (failed_ && !kind_.living) return kFailed;
  if (anything) return kDone;
  if (observer_.Met() == 0) {
    session_.progress.Note("nobody of " + WhomText() + " was met within " + SecondsText(session_.WaitSeconds()) +
                           "; 'varnix doctor' says why");
  }
  return kNothing;
}
