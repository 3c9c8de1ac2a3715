// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "top/TopCommand.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "net/Sockets.h"
#include "text/Printable.h"

namespace {

constexpr std::chrono::milliseconds kPace{100};       // Of a screen on which much changes.
constexpr std::chrono::milliseconds kSlowPace{1000};  // Of ages and rates.

// A screen that is stopped shows a copy, which may take as much memory again.
Observer::Settings ToSettings(const Session& session) {
  Observer::Settings settings = ObserverSettings(session);
  settings.memory /= 2;
  return settings;
}

std::string Title(const Options& options) {
  return Printable(*options.group, 24) + "/" + Printable(*options.database, 24);
}

}  // namespace

pollfd TopCommand::Keyboard::Awaited() const { return {gone_ ? -1 : STDIN_FILENO, POLLIN, 0}; }

void TopCommand::Keyboard::OnReady(short events) { gone_ = (events & (POLLHUP | POLLERR | POLLNVAL)) != 0; }

TopCommand::TopCommand(const Options& options)
    : session_(options, STDOUT_FILENO),
      observer_(session_.loop, ToSettings(session_), *this),
      keyboard_(session_.loop) {
  RaiseDescriptorLimit();
}

int TopCommand::Run() {
  while (!session_.IsEndedFromOutside() && !keyboard_.IsGone()) {
    session_.loop.Turn(std::min(NextDrawing(), observer_.Deadline()));
    observer_.Tidy();
    if (!HandleKeys()) return kDone;
    if (Clock::now() >= NextDrawing()) Draw();
  }
  screen_.Close();
  return keyboard_.IsGone() && session_.signals.First() == 0 ? kDone : session_.StatusFromOutside(kDone);
}

void TopCommand::OnMet(const Member& member) {
  model_.AddMember(member);
  changed_ = true;
}

std::size_t TopCommand::OnRow(const Member& member, const Row& row) {
  changed_ = true;
  return model_.SetRow(member, row, Clock::now());
}

void TopCommand::OnEnd(const Member& member, const End& end) {
  model_.RemoveMember(member.place);
  changed_ = true;
  if (IsLeftOut(end)) notice_ = NameAndPlaceText(member) + " " + EndText(end);
}

// False when it is to end.
bool TopCommand::HandleKeys() {
  for (int key = screen_.NextKey(); key != 0; key = screen_.NextKey()) {
    drawn_ = TimePoint();  // At once.
    notice_.clear();
    if (key > 0 && PressKey(view_, key, page_) == TopAction::kQuit) return false;
    if (view_.stopped == stopped_model_.has_value()) continue;
    stopped_model_ = view_.stopped ? std::optional<TopModel>(model_) : std::nullopt;
    stopped_at_ = Clock::now();
  }
  return true;
}

std::string TopCommand::Trouble() const {
  if (!notice_.empty() || observer_.Met() > 0) return notice_;
  if (observer_.AnnouncingError() != 0) {
    return "cannot announce to " + AddressText(session_.options.broadcast) + ": " +
           std::strerror(observer_.AnnouncingError());
  }
  if (observer_.HearingError() == 0) return "";
  return std::string("cannot share UDP port 1975: ") + std::strerror(observer_.HearingError());
}

TimePoint TopCommand::NextDrawing() const { return drawn_ + (changed_ ? kPace : kSlowPace); }

void TopCommand::Draw() {
  const TopModel& model = stopped_model_ ? *stopped_model_ : model_;
  view_.trouble = Trouble();
  const TopPage page(model, view_, Title(session_.options), screen_.Width(), screen_.Height(),
                     stopped_model_ ? stopped_at_ : Clock::now());
  screen_.Show(page.Lines());
  page_ = page.LastPartHeight();
  drawn_ = Clock::now();
  changed_ = false;
}
