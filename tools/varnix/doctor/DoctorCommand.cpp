// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "doctor/DoctorCommand.h"

#include <unistd.h>

#include <algorithm>

#include "commands/RowPrinter.h"
#include "doctor/Checks.h"
#include "net/Sockets.h"
#include "text/JsonObject.h"
#include "text/Printable.h"

namespace {

constexpr std::chrono::seconds kMostPatience{1};
constexpr std::size_t kMostOfAPlace = 1 << 14;  // In bytes, with the longest names that members have.
constexpr char kGood[] = "\x1b[32m", kBad[] = "\x1b[31m";

Observer::Settings ToSettings(const Session& session) {
  Observer::Settings settings = ObserverSettings(session);
  settings.visits_other_groups = true;
  settings.memory /= 2;  // The other half is for what is remembered of them.
  return settings;
}

}  // namespace

DoctorCommand::DoctorCommand(const Options& options)
    : session_(options, STDOUT_FILENO),
      observer_(session_.loop, ToSettings(session_), *this),
      most_places_((options.limit_mib << 20) / 2 / kMostOfAPlace),
      patience_(std::min<Clock::duration>((session_.End() - session_.begun) / 4, kMostPatience)) {
  RaiseDescriptorLimit();
  evidence_.group = *options.group;
  evidence_.database = *options.database;
  evidence_.broadcast = options.broadcast;
  evidence_.announced = !options.passive;
  evidence_.seconds = session_.WaitSeconds();
  evidence_.route = FindRoute(options.broadcast);
  evidence_.hearing_error = observer_.HearingError();
}

int DoctorCommand::Run() {
  Print(CheckHost(evidence_));
  while (Clock::now() < session_.End() && !session_.IsEndedFromOutside()) Turn();
  if (session_.IsEndedFromOutside()) return session_.StatusFromOutside(kFailed);
  evidence_.announcing_error = observer_.AnnouncingError();
  evidence_.strangers = observer_.Strange();
  evidence_.judged_until = session_.End() - patience_;
  session_.progress.Clear();
  Print(CheckMembers(evidence_));
  if (session_.IsEndedFromOutside()) return session_.StatusFromOutside(kFailed);
  return failed_ ? kFailed : kDone;
}

void DoctorCommand::Turn() {
  const TimePoint now = Clock::now();
  TimePoint next = std::min({observer_.Deadline(), session_.End(), next_asking_});
  if (session_.progress.IsShown()) next = std::min(next, now + Progress::kPace);
  session_.loop.Turn(next);
  observer_.Tidy();
  AskToConnectBack();
  if (now - session_.begun < Progress::kSilence) return;
  session_.progress.Show(
      "Looking for members: ",
      CountText(evidence_.places.size(), "place") + " known, " +
          std::to_string(std::chrono::duration_cast<std::chrono::seconds>(now - session_.begun).count()) + " of " +
          SecondsText(session_.WaitSeconds()));
}

// Those of whom we know only because we have heard them: they may not hear us, or may not get through.
void DoctorCommand::AskToConnectBack() {
  next_asking_ = TimePoint::max();
  if (!evidence_.announced) return;
  for (auto& [place, seen] : evidence_.places) {
    const bool ours = seen.member.group == evidence_.group && seen.member.database == evidence_.database;
    if (ours && seen.named && !seen.came && !seen.asked) AskToConnectBack(seen);
  }
}

// Only once it had the time to come after an announcement that it could hear: it may have begun after the last one.
void DoctorCommand::AskToConnectBack(SeenPlace& seen) {
  const TimePoint now = Clock::now();
  if (!seen.told && observer_.AnnouncedAt() < seen.known && observer_.AnnouncedAt() + patience_ <= now) {
    observer_.Announce();
  }
  if (!seen.told && observer_.AnnouncedAt() >= seen.known) seen.told = observer_.AnnouncedAt();
  const TimePoint due = seen.told.value_or(observer_.AnnouncedAt()) + patience_;
  if (due > now) {
    next_asking_ = std::min(next_asking_, due);
  } else if (observer_.AskToConnectBack(seen.member.place)) {
    seen.asked = now;
  }
}

// Beyond their limit places are not remembered: the last one serves for all of them.
SeenPlace& DoctorCommand::Seen(const Place& place) {
  static SeenPlace surplus;
  if (evidence_.places.size() >= most_places_ && evidence_.places.count(place) == 0) return surplus;
  const auto [entry, is_new] = evidence_.places.try_emplace(place);
  if (is_new) entry->second.known = Clock::now();
  entry->second.member.place = place;
  return entry->second;
}

void DoctorCommand::OnHeard(const Place& place, const std::string& group) {
  SeenPlace& seen = Seen(place);
  seen.heard = true;
  seen.member.group = group;
}

void DoctorCommand::OnCame(const Place& place) {
  SeenPlace& seen = Seen(place);
  seen.came = true;
  seen.member.group = evidence_.group;
}

// What it did at one address counts for the other.
void DoctorCommand::OnDuplicate(const Member& member) {
  const SeenPlace duplicate = Seen(member.place);
  evidence_.places.erase(member.place);
  for (auto& [place, seen] : evidence_.places) {
    if (place.port != member.place.port || seen.member.identity != member.identity) continue;
    seen.heard |= duplicate.heard;
    seen.came |= duplicate.came;
  }
}

std::size_t DoctorCommand::OnRow(const Member& member, const Row&) {
  ++Seen(member.place).rows;
  return 0;
}

void DoctorCommand::OnEnd(const Member& member, const End& end) { Seen(member.place).OnEnd(member.group, end); }

void DoctorCommand::Print(const std::vector<Finding>& findings) {
  for (const Finding& finding : findings) {
    failed_ |= !finding.good;
    Print(finding);
  }
  session_.output.Flush();
}

void DoctorCommand::Print(const Finding& finding) {
  std::string& out = session_.output.Text();
  const std::string result = finding.good ? "OK" : "FAILED";
  if (session_.options.json) {
    JsonObject object(out);
    object.Text("check", finding.check).Text("result", result).Text("seen", finding.seen);
    if (!finding.good) object.Text("do", finding.todo).Text("log", finding.log);
    return object.End();
  }
  const bool coloured = IsColourWanted(session_.output.IsTerminal());
  const std::string gap(8 - result.size(), ' '), name_gap(10 - finding.check.size(), ' '), indent(18, ' ');
  out += (coloured ? (finding.good ? kGood : kBad) + result + kNoColour : result) + gap + finding.check + name_gap +
         finding.seen + "\n";
  if (finding.good) return;
  out += indent + "do:  " + finding.todo + "\n" + indent + "log: " + finding.log + "\n";
}
