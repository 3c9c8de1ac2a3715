// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "commands/SettingCommand.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <utility>
#include <vector>

#include "net/Snapshot.h"
#include "net/Sockets.h"
#include "text/Printable.h"
#include "wire/CombinedKey.h"
#include "wire/Record.h"

namespace {

constexpr std::chrono::seconds kMostForTaking{1};
constexpr int kNoOutput = -1;
constexpr std::size_t kMostNamed = 8;

Setter::Settings ToSettings(const Options& options, const Session& session) {
  return {*options.group, *options.database, options.broadcast, session.Identity(), !options.passive};
}

}  // namespace

SettingCommand::SettingCommand(const Options& options)
    : session_(options, kNoOutput), setter_(session_.loop, ToSettings(options, session_), rows_) {
  RaiseDescriptorLimit();
  session_.NoteHearing(setter_.HearingError());
}

void SettingCommand::Set(const std::string& table, const std::string& key, std::string value,
                         const std::string& where) {
  const std::string combined = CombinedKey(table, key);
  if (table.size() > kMostBytesOfName) return Fail(where + "a table's name has more than 255 bytes: left out");
  if (combined.size() > kMostBytesOfA) return Fail(where + "table and key have more than 4094 bytes: left out");
  if (value.size() > kMostBytesOfB) return Fail(where + "a value has more than 1048575 bytes: left out");
  rows_.Set(combined, std::move(value));
}

void SettingCommand::Fail(const std::string& note) {
  session_.progress.Note(note);
  failed_ = true;
}

int SettingCommand::Run() {
  Step();
  while (phase_ != Phase::kDone) Turn();
  session_.progress.Clear();
  return EndStatus();
}

void SettingCommand::Turn() {
  session_.loop.Turn(NextStep());
  setter_.Tidy();
  NoteTrouble();
  if (Clock::now() - session_.begun >= Progress::kSilence) session_.progress.Show("", ProgressText());
  const bool ends_well = phase_ == Phase::kFinishing && session_.options.hold;
  if (session_.signals.First() == 0 || ends_well) return Step();
  // Who holds its rows for others ends well; everything else is cut off.
  if (session_.options.hold && session_.signals.First() == SIGINT) return Finish();
  session_.progress.Clear();
  session_.signals.EndByFirst();
}

void SettingCommand::Step() {
  if (phase_ == Phase::kFeeding && Feed()) EndFeeding();
  if (phase_ == Phase::kMeeting && (IsSettled() || Clock::now() >= EndOfMeeting())) EndMeeting();
  if (phase_ == Phase::kFinishing && (setter_.Connected() == 0 || Clock::now() >= end_)) phase_ = Phase::kDone;
  if (phase_ == Phase::kFinishing && session_.signals.Again()) phase_ = Phase::kDone;
}

void SettingCommand::EndFeeding() {
  phase_ = Phase::kMeeting;
  end_ = Clock::now() + (session_.End() - session_.begun);
}

// When those who are met have to have been met: they need a part of the time for taking the rows.
TimePoint SettingCommand::EndOfMeeting() const {
  const Clock::duration wait = session_.End() - session_.begun;
  const bool all_of_it = setter_.Connected() == 0 || session_.options.hold;
  return all_of_it ? end_ : end_ - std::min<Clock::duration>(wait / 2, kMostForTaking);
}

// Somebody is there, nobody is missing, and it has been a while since anybody came.
bool SettingCommand::IsSettled() const {
  return !session_.options.passive && setter_.Connected() > 0 &&
         Clock::now() - setter_.LastEvent() >= Snapshot::kWhile && setter_.Lost().empty();
}

void SettingCommand::EndMeeting() {
  if (!session_.options.hold) return Finish();
  phase_ = Phase::kHolding;
  end_ = TimePoint::max();
  session_.progress.Note(CountText(rows_.Size(), "row") + ", sent to " + CountText(setter_.Connected(), "member") +
                         " and to all that join; interrupt ends it");
}

// The time for taking the rows of what is held begins when it is interrupted.
void SettingCommand::Finish() {
  phase_ = Phase::kFinishing;
  if (session_.options.hold) {
    end_ = Clock::now() + std::max<Clock::duration>(session_.End() - session_.begun, kMostForTaking);
    setter_.ForgetLost();  // Members come and go.
  }
  session_.signals.Forgive();
  setter_.Finish();
}

TimePoint SettingCommand::NextStep() const {
  const TimePoint now = Clock::now();
  TimePoint next = end_;
  if (phase_ == Phase::kFeeding) next = NextRow();
  if (phase_ == Phase::kMeeting) next = EndOfMeeting();
  const TimePoint quiet = setter_.LastEvent() + Snapshot::kWhile;
  if (phase_ == Phase::kMeeting && quiet > now) next = std::min(next, quiet);
  if (session_.progress.IsShown()) next = std::min(next, now + Progress::kPace);
  return next;
}

void SettingCommand::NoteTrouble() {
  if (setter_.AnnouncingError() == 0 || announcing_told_) return;
  announcing_told_ = true;
  session_.progress.Note("cannot announce to " + AddressText(session_.options.broadcast) + ": " +
                         std::strerror(setter_.AnnouncingError()) + "; members may be heard within a minute");
}

std::string SettingCommand::ProgressText() const {
  const std::string done =
      phase_ == Phase::kFinishing ? ", taken by " + std::to_string(setter_.Met() - setter_.Untaken().size()) : "";
  return CountText(rows_.Size(), "row") + ", " + CountText(setter_.Connected(), "member") + " connected" + done;
}

// "2 members", or "1 member of 3 that were met, not by 10.0.0.1:40213, 10.0.0.2:35001".
std::string SettingCommand::TakenText() const {
  const std::vector<Place> missing = setter_.Untaken();
  std::string text = CountText(setter_.Met() - missing.size(), "member");
  if (missing.empty()) return text;
  text += " of " + std::to_string(setter_.Met()) + " that were met";
  const std::size_t named = std::min(missing.size(), kMostNamed);
  for (std::size_t i = 0; i < named; ++i) text += (i == 0 ? ", not by " : ", ") + PlaceText(missing[i]);
  return named == missing.size() ? text : text + " and " + std::to_string(missing.size() - named) + " more";
}

int SettingCommand::EndStatus() {
  const bool held = session_.options.hold && session_.signals.First() != 0;
  if (setter_.Met() == 0 && !held) {
    session_.progress.Note("nobody of group \"" + Printable(*session_.options.group) + "\" with database \"" +
                           Printable(*session_.options.database) + "\" was met within " +
                           SecondsText(session_.WaitSeconds()) + "; 'varnix doctor' says why");
    return kNothing;
  }
  session_.progress.Note(CountText(rows_.Size(), "row") + " taken by " + TakenText());
  return !held && (failed_ || !setter_.Untaken().empty()) ? kFailed : kDone;
}
