// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "Broker.h"
#include "InFlight.h"
#include "Log.h"
#include "Options.h"
#include "Outbox.h"
#include "Suspects.h"
#include "Topic.h"

// Publishes the rows of the group.
//
// Threads: that of the owner alone.
class Publisher {
 public:
  using Clock = std::chrono::steady_clock;

  Publisher(const Options& options, const Topics& topics, Broker& broker, const Log& log);

  // The broker has accepted a connection: everything is published anew.
  void Begin();
  // Publishes what there is and has room.
  void SendWhatIsDue(Clock::time_point now = Clock::now());
  void Acknowledged(int message, int reason, Clock::time_point now = Clock::now());
  // Whether it has been found out why, so that there is hope for the next connection.
  bool ConnectionHasEnded(const BrokerEnd& end, Clock::time_point now = Clock::now());

  // No more rows.
  void Stop();
  bool IsIdle() const { return in_flight_.IsEmpty(); }

  // Whether SendWhatIsDue() has more to do as soon as the descriptor of the outbox is readable.
  bool AwaitsChanges() const { return stage_ == Stage::kFlowing && in_flight_.HasRoom(); }
  int Descriptor() const { return outbox_.Descriptor(); }
  // Whether it has more to do at once.
  bool HasWork() const { return AwaitsChanges() && outbox_.IsWalking(); }

  // Once a second.
  void Tick(Clock::time_point now = Clock::now());
  // Once a minute.
  void Beat();

 private:
  // How far a connection has come.
  enum class Stage {
    kResting,  // There is none, or it is about to end.
    kProbing,  // One row at a time, because the broker has cut off the last connection.
    kFlowing,  // All rows, and then what changes.
  };

  void ProbeNext(Clock::time_point now);
  void PublishRows();
  // A row that has changed, or one that the walk has come upon: neither keeps the other waiting.
  bool TakeInTurn(OutRow& row);
  // Whether an acknowledgement will come.
  bool Publish(const std::string& topic, std::string_view value);
  void TellWhenAllIsPublished();
  void TellOfConvict(const std::optional<std::string>& convict);
  void TellOfRefusal(const std::string& topic, const std::string& why);

  Broker& broker_;
  const Log& log_;
  Outbox outbox_;
  InFlight in_flight_;
  Suspects suspects_;
  bool has_convicted_ = false;  // In this connection.
  PacedWarnings refused_rows_;

  Stage stage_ = Stage::kResting;
  std::optional<Clock::time_point> restart_;  // When everything is published anew, because the broker had no room.
  unsigned long published_ = 0;               // In this connection.
  bool walk_is_next_ = false;
  // Of this connection, once there was nothing more to send. When all up to this one are acknowledged, all is
  // published, though rows that have changed since then may be underway.
  std::optional<unsigned long> last_to_be_published_;
  bool all_is_published_ = false;
};
