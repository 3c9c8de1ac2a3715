// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "Publisher.h"

#include <utility>
#include <vector>

#include "BrokerWords.h"

namespace {

constexpr std::chrono::minutes kBeforeARestart(1);

// As the log names a row: DATABASE/TABLE/KEY, encoded as in the topic.
std::string NameOf(const std::string& topic) { return '\'' + Printable(Topics::WithinSite(topic)) + '\''; }

}  // namespace

Publisher::Publisher(const Options& options, const Topics& topics, Broker& broker, const Log& log)
    : broker_(broker), log_(log), outbox_(options, topics, log), refused_rows_(log, "rows were refused") {}

void Publisher::Begin() {
  stage_ = Stage::kProbing;
  published_ = 0;
  last_to_be_published_.reset();
  all_is_published_ = false;
}

void Publisher::SendWhatIsDue(Clock::time_point now) {
  if (stage_ == Stage::kProbing) ProbeNext(now);
  if (stage_ != Stage::kFlowing) return;
  PublishRows();
  TellWhenAllIsPublished();
}

void Publisher::Acknowledged(int message, int reason, Clock::time_point now) {
  const std::optional<std::string> topic = in_flight_.Remove(message);
  if (!topic) return;
  if (!IsRefusal(reason)) return suspects_.GotThrough(*topic);
  TellOfRefusal(*topic, WordsForReason(reason));
  if (IsForTheRow(reason)) {
    TellOfConvict(suspects_.WasRefused(*topic, now));
  } else {
    suspects_.WasRefusedForElse(*topic, now);
  }
  if (MayPass(reason) && !restart_) restart_ = now + kBeforeARestart;
}

bool Publisher::ConnectionHasEnded(const BrokerEnd& end, Clock::time_point now) {
  stage_ = Stage::kResting;
  outbox_.Rest();
  const std::vector<std::string> unacknowledged = in_flight_.Clear();
  const bool cut_off = end.cause == BrokerEnd::Cause::kCutOff;
  if (cut_off) {
    TellOfConvict(suspects_.ConnectionWasCutOff(unacknowledged, now));
  } else {
    suspects_.ConnectionEndedOtherwise();
  }
  return std::exchange(has_convicted_, false) && cut_off;
}

void Publisher::TellOfConvict(const std::optional<std::string>& convict) {
  if (!convict) return;
  has_convicted_ = true;
  log_.Error("The broker ends the connection when it gets the row " + NameOf(*convict) +
             ". The row is left out until this program starts again.");
}

void Publisher::Stop() {
  stage_ = Stage::kResting;
  outbox_.Rest();
}

void Publisher::Tick(Clock::time_point now) {
  refused_rows_.Tick();
  if (!restart_ || now < *restart_ || stage_ != Stage::kFlowing) return;
  if (!outbox_.IsDrained()) return;  // Or the last rows would never leave, where all take longer than that.
  restart_.reset();
  outbox_.Restart();
}

void Publisher::Beat() {
  if (stage_ == Stage::kFlowing && !outbox_.IsWalking()) outbox_.StartWalk();
}

void Publisher::ProbeNext(Clock::time_point now) {
  while (broker_.HasConnection() && in_flight_.IsEmpty() && !suspects_.NextMustWait(now)) {
    const std::optional<std::string> suspect = suspects_.Next();
    if (!suspect) {
      stage_ = Stage::kFlowing;
      return outbox_.Restart();
    }
    const std::optional<std::string> value = outbox_.ValueOf(*suspect);
    if (value && Publish(*suspect, *value)) continue;
    if (broker_.HasConnection()) suspects_.GotThrough(*suspect);
  }
}

void Publisher::PublishRows() {
  OutRow row;
  while (broker_.HasConnection() && in_flight_.HasRoom() && TakeInTurn(row)) Publish(row.topic, row.value);
}

bool Publisher::TakeInTurn(OutRow& row) {
  walk_is_next_ = !walk_is_next_;
  if (walk_is_next_ && outbox_.TakeEmpty(row)) return true;
  return outbox_.Take(row) || outbox_.TakeEmpty(row);
}

bool Publisher::Publish(const std::string& topic, std::string_view value) {
  if (suspects_.LeavesOut(topic)) return false;
  int message = 0;
  std::string why;
  switch (broker_.Publish(topic, value, message, why)) {
    case Broker::Outcome::kSent:
      in_flight_.Add(message, topic, value.size());
      ++published_;
      return true;
    case Broker::Outcome::kRefused:
      TellOfRefusal(topic, why);
      return false;
    case Broker::Outcome::kConnectionEnded:
      break;
  }
  return false;
}

void Publisher::TellOfRefusal(const std::string& topic, const std::string& why) {
  refused_rows_.Write("The broker does not get the row " + NameOf(topic) + ": " + why + ".");
}

void Publisher::TellWhenAllIsPublished() {
  if (all_is_published_) return;
  if (!last_to_be_published_ && outbox_.IsDrained()) last_to_be_published_ = in_flight_.Last();
  if (!last_to_be_published_ || in_flight_.HasAnyUpTo(*last_to_be_published_)) return;
  all_is_published_ = true;
  log_.Info("All rows are published: " + std::to_string(published_) + ".");
}
