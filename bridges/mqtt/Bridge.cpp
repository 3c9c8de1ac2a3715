// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "Bridge.h"

#include <algorithm>
#include <cstdio>

#include "BrokerWords.h"
#include "Signals.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr seconds kBetweenChores(1);
constexpr seconds kBetweenBeats(60);
constexpr seconds kLongEnough(10);  // A connection that lasted as long was a good one.
constexpr seconds kLongestLeave(3);

std::string InSeconds(milliseconds time) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f s", static_cast<double>(time.count()) / 1000);
  return text;
}

std::optional<Presence> MakePresence(const Options& options, const Topics& topics) {
  if (options.read_only) return std::nullopt;
  return std::make_optional<Presence>(topics, options.site);
}

std::optional<Broker::State> NextWillOf(std::optional<Presence>& presence) {
  if (!presence) return std::nullopt;
  return presence->NextWill();
}

std::string NameOf(const Options& options) { return options.host + " port " + std::to_string(options.port); }

}  // namespace

Bridge::Bridge(const Options& options, const Log& log)
    : options_(options),
      log_(log),
      topics_(options.prefix),
      client_name_(topics_.ClientOf(options.site) + (options.read_only ? ":reader:" + RandomName() : "")),
      presence_(MakePresence(options, topics_)),
      group_(options, log),
      inbox_(options, topics_, group_, log),
      broker_(options, client_name_, *this, log),
      next_beat_(Clock::now() + kBetweenBeats) {
  if (!options.read_only) publisher_.emplace(options, topics_, broker_, log);
}

Bridge::ExitStatus Bridge::Run() {
  JoinGroup();
  while (!Signals::EndIsAskedFor()) {
    if (broker_.Connect(NextWillOf(presence_))) ServeConnection();
    if (Signals::EndIsAskedFor()) break;
    if (HasSecondBridge() && GivesWay()) return kSecondBridge;
    CleanUpAfterConnection();
    const milliseconds pause = backoff_.Next();
    TellOfEnd(pause);
    PauseFor(pause);
  }
  TakeLeave();
  log_.Notice("Ended, as asked for.");
  return kEnded;
}

bool Bridge::IsTakenOver() const {
  return !broker_.HasConnection() && broker_.End().cause == BrokerEnd::Cause::kTakenOver;
}

bool Bridge::HasSecondBridge() const { return IsTakenOver() || (presence_ && presence_->HasSeenAnother()); }

bool Bridge::GivesWay() {
  if (!IsTakenOver() && !TakeLeave()) {
    broker_.GiveUp();
    return false;
  }
  log_.Error("Another client connects to the broker as '" + client_name_ +
             "', which is our name. Is there a second bridge for this site? This one ends, because the broker would "
             "throw out both in turns.");
  return true;
}

void Bridge::JoinGroup() {
  if (options_.password && !options_.UsesTls()) {
    log_.Warning("The password goes to the broker in the clear: there is no --ca.");
  }
  if (publisher_) {
    for (const std::string& database : options_.databases) {
      if (!group_.Join(database)) {
        log_.Error("The database '" + Printable(database) + "' is not published: there are " +
                   std::to_string(group_.MostDatabases()) + " already, and more are not shared.");
      }
    }
  }
  inbox_.JoinDatabases();
  group_.Tick();
}

void Bridge::ServeConnection() {
  accepted_at_.reset();
  greeted_ = false;
  while (broker_.HasConnection() && !Signals::EndIsAskedFor() && !HasSecondBridge()) {
    if (accepted_at_ && !greeted_) Greet();
    if (publisher_) {
      const Broker::Gathering gathering(broker_);
      publisher_->SendWhatIsDue();
    }
    if (broker_.HasConnection()) WaitForTheBroker();
    inbox_.LetEmptyValuesLeave();
    DoChores();
  }
}

void Bridge::Greet() {
  greeted_ = true;
  log_.Notice("Connected to the broker at " + NameOf(options_) + " as '" + client_name_ + "'.");
  filters_ = inbox_.Filters();
  // Before we change it. And first: what the broker has comes in this order, and rows may be many.
  if (presence_) filters_.insert(filters_.begin(), presence_->Topic());
  broker_.Subscribe(filters_);
  if (presence_ && broker_.HasConnection()) presence_->Announce(broker_);
}

void Bridge::WaitForTheBroker() {
  std::vector<pollfd> awaited = {{broker_.Descriptor(), POLLIN, 0}};
  if (broker_.WantsToWrite()) awaited.front().events |= POLLOUT;
  // While there is no room for rows, the changes stay where they are, and their descriptor readable.
  if (publisher_ && publisher_->AwaitsChanges()) awaited.push_back({publisher_->Descriptor(), POLLIN, 0});
  Signals::Poll(awaited, publisher_ && publisher_->HasWork() ? milliseconds(0) : kBetweenChores);
  broker_.Serve(awaited.front().revents != 0);
}

void Bridge::Acknowledged(int message, int reason) {
  if (!publisher_) return;
  if (!presence_->Acknowledged(message, reason, log_)) return publisher_->Acknowledged(message, reason);
  if (!Signals::EndIsAskedFor() && !HasSecondBridge()) publisher_->Begin();  // The broker has shown that it works.
}

void Bridge::Arrived(std::string_view topic, std::string_view payload, std::string_view instance) {
  if (presence_ && topic == presence_->Topic()) {
    presence_->Saw(instance);
  } else {
    inbox_.Take(topic, payload);
  }
}

void Bridge::Subscribed(const std::vector<int>& reasons) {
  for (std::size_t i = 0; i < std::min(filters_.size(), reasons.size()); ++i) {
    if (IsRefusal(reasons[i])) {
      log_.Error("The broker refuses to send us '" + filters_[i] + "': " + WordsForReason(reasons[i]) + ".");
    } else {
      log_.Info("The broker sends us '" + filters_[i] + "'.");
    }
  }
}

void Bridge::CleanUpAfterConnection() {
  const bool hopeful = publisher_ && publisher_->ConnectionHasEnded(broker_.End());
  const bool was_good = accepted_at_ && Clock::now() - *accepted_at_ >= kLongEnough;
  if (hopeful || was_good) backoff_.Reset();
}

void Bridge::TellOfEnd(milliseconds next_attempt) const {
  const std::string head =
      accepted_at_ ? "The connection has ended to the broker at " : "There is no connection to the broker at ";
  log_.Warning(head + NameOf(options_) + ": " + broker_.End().words + ". Next attempt in " + InSeconds(next_attempt) +
               ".");
}

void Bridge::PauseFor(milliseconds time) {
  accepted_at_.reset();
  const Clock::time_point end = Clock::now() + time;
  std::vector<pollfd> nothing;
  while (!Signals::EndIsAskedFor() && Clock::now() < end) {
    const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now()) + milliseconds(1);
    Signals::Poll(nothing, std::min<milliseconds>(left, kBetweenChores));
    DoChores();
  }
}

void Bridge::DoChores() {
  const Clock::time_point now = Clock::now();
  if (now < next_chores_) return;
  next_chores_ = now + kBetweenChores;
  const bool beat = now >= next_beat_;
  if (beat) next_beat_ = now + kBetweenBeats;
  group_.Tick();
  inbox_.Tick();
  if (beat) inbox_.Beat();
  if (!publisher_) return;
  publisher_->Tick();
  if (beat) publisher_->Beat();
}

bool Bridge::TakeLeave() {
  if (!broker_.HasConnection() || !greeted_) return false;
  if (publisher_) publisher_->Stop();
  if (presence_) presence_->TakeLeave(broker_);
  const Clock::time_point end = Clock::now() + kLongestLeave;
  const auto is_underway = [this] { return presence_ && !(presence_->IsKnown() && publisher_->IsIdle()); };
  while (broker_.HasConnection() && is_underway() && Clock::now() < end) WaitForTheBroker();
  if (!broker_.HasConnection()) return false;
  if (presence_ && !presence_->IsKnown()) return false;  // The connection just ends, so that the will tells it.
  broker_.Disconnect();
  return true;
}
