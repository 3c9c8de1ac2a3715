// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "web/EventFeed.h"

#include <algorithm>
#include <utility>

#include "commands/Description.h"
#include "text/JsonObject.h"
#include "text/Time.h"

namespace {

// Ends the lines of data of an event, and the event.
constexpr char kEnd[] = "\n";

// In a pass by name it may be long from one row that is told to the next. Others wait for the thread meanwhile.
constexpr int kMostLooks = 4096;

void BeginEvent(std::string& out, const char* name) { out.append("event: ").append(name).append("\n"); }

JsonObject BeginData(std::string& out) {
  out += "data: ";
  return JsonObject(out);
}

void Tell(std::string& out, const WebModel::MemberEntry& member) {
  BeginEvent(out, "member");
  JsonObject data = BeginData(out);
  Describe(data, member.member);
  data.Text("since", TimeText(member.since_us)).End();
  out += kEnd;
}

void Tell(std::string& out, const WebModel::Departure& departure) {
  BeginEvent(out, "left");
  JsonObject data = BeginData(out);
  Describe(data, departure.member);
  data.Text("since", TimeText(departure.since_us))
      .Text("left", TimeText(departure.left_us))
      .Text("reason", EndText(departure.end))
      .End();
  out += kEnd;
}

void TellTime(std::string& out) {
  BeginEvent(out, "time");
  JsonObject data = BeginData(out);
  data.Text("time", TimeText(TimeNow())).End();
  out += kEnd;
}

void TellRow(std::string& out, const WebModel::RowEntry& row) {
  const Member& member = row.member->member;
  JsonObject data = BeginData(out);
  Describe(data, member, {row.table, row.key, row.value, row.time_us});
  data.Number("port", member.place.port).End();
}

// Rows that follow each other are one event. The result is whether such an event is open.
bool TellChange(std::string& out, const WebModel::Change& change, bool in_rows) {
  if (const auto* const row = std::get_if<const WebModel::RowEntry*>(&change)) {
    if (!in_rows) BeginEvent(out, "rows");
    TellRow(out, **row);
    return true;
  }
  const auto* const member = std::get_if<const WebModel::MemberEntry*>(&change);
  if (!member) return in_rows;  // A departure: it has been told.
  if (in_rows) out += kEnd;
  Tell(out, **member);
  return false;
}

}  // namespace

EventFeed::EventFeed(const WebModel& model, std::string hello) : model_(model), hello_(std::move(hello)) {}

bool EventFeed::HasMore() const { return !begun_ || !ready_ || told_ < model_.LastChange(); }

void EventFeed::Fill(std::string& out) {
  if (!begun_ || HasMissedADeparture()) Begin(out);
  const std::size_t enough = out.size() + kPiece;
  if (!TellDepartures(out, enough)) return;
  if (pass_) return FillByName(out, enough);
  FillByNumber(out, enough);
}

// False when the text is long enough: then nothing else may follow, because another member may be at the same place.
bool EventFeed::TellDepartures(std::string& out, std::size_t enough) {
  const auto& departures = model_.Departures();
  for (auto next = departures.upper_bound(departed_); next != departures.end(); ++next) {
    if (out.size() >= enough) return false;
    Tell(out, next->second);
    departed_ = next->first;
  }
  return true;
}

void EventFeed::FillByNumber(std::string& out, std::size_t enough) {
  if (told_ >= round_) round_ = model_.LastChange();
  bool in_rows = false;
  auto change = model_.After(told_);
  for (; change != model_.End() && !IsAtReady(change) && out.size() < enough; ++change) {
    in_rows = TellChange(out, change->second, in_rows);
    told_ = change->first;
  }
  if (in_rows) out += kEnd;
  if (IsAtReady(change)) {
    ready_ = true;
    round_ = told_;
    out += "event: ready\ndata: {}\n\n";
  } else if (change == model_.End()) {
    told_ = round_ = model_.LastChange();  // Those with the last numbers may be gone.
  } else if (ready_ && change->first > round_) {
    pass_.emplace(Pass{told_, model_.LastChange(), std::nullopt, RowCursor(model_)});
  }
}

void EventFeed::FillByName(std::string& out, std::size_t enough) {
  bool in_rows = false;
  for (int looks = 0; pass_ && looks < kMostLooks && out.size() < enough; ++looks) {
    if (const auto change = NextByName()) {
      if (IsNews(*change)) in_rows = TellChange(out, *change, in_rows);
    } else {
      told_ = round_ = pass_->until;
      pass_.reset();
    }
  }
  if (in_rows) out += kEnd;
}

// Nothing behind the last.
std::optional<WebModel::Change> EventFeed::NextByName() {
  const auto& members = model_.Members();
  const auto member = pass_->member ? members.upper_bound(*pass_->member) : members.begin();
  if (member != members.end()) {
    pass_->member = member->first;
    return &member->second;
  }
  if (const WebModel::RowEntry* const row = pass_->rows.Next()) return row;
  return std::nullopt;
}

// A member that came after the pass began is told when the pass has ended, with its rows.
bool EventFeed::IsNews(const WebModel::Change& change) const {
  if (const auto* const row = std::get_if<const WebModel::RowEntry*>(&change)) {
    return (*row)->number > pass_->told && (*row)->member->number <= pass_->until;
  }
  const std::uint64_t number = std::get<const WebModel::MemberEntry*>(change)->number;
  return number > pass_->told && number <= pass_->until;
}

// More departures than are kept: nothing but a new beginning tells who is left. Those from before the beginning do not
// count: nothing was told of these members. Else one that is slow would begin anew for ever where many leave.
bool EventFeed::HasMissedADeparture() const { return model_.LastForgotten() > std::max(departed_, first_part_); }

// Whether everything that there was at the beginning stands before this change.
bool EventFeed::IsAtReady(WebModel::Changes::const_iterator change) const {
  return !ready_ && (change == model_.End() || change->first > first_part_);
}

void EventFeed::Begin(std::string& out) {
  begun_ = true;
  ready_ = false;
  told_ = round_ = departed_ = 0;
  pass_.reset();
  first_part_ = model_.LastChange();
  TellTime(out);
  BeginEvent(out, "hello");
  out.append("data: ").append(hello_).append(kEnd);
}

// No time before `ready`: by the time at the beginning a reader tells which departures are new to it.
std::string EventFeed::SignOfLife() const {
  std::string out;
  if (ready_) TellTime(out);
  return out;
}
