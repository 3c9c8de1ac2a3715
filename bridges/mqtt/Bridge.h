// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Backoff.h"
#include "Broker.h"
#include "Group.h"
#include "Inbox.h"
#include "Log.h"
#include "Options.h"
#include "Presence.h"
#include "Publisher.h"
#include "Topic.h"

// The program: one connection to the broker after another, until the end is asked for.
//
// Threads: that of the owner alone, for everything but the sleep until a row changes (Alarm) and what the library does.
class Bridge final : private BrokerListener {
 public:
  enum ExitStatus { kEnded = 0, kFailed = 1, kWrongUsage = 2, kSecondBridge = 3 };

  Bridge(const Options& options, const Log& log);

  ExitStatus Run();

 private:
  using Clock = std::chrono::steady_clock;

  void BrokerIsThere() override { accepted_at_ = Clock::now(); }
  void Acknowledged(int message, int reason) override;
  void Subscribed(const std::vector<int>& reasons) override;
  void Arrived(std::string_view topic, std::string_view payload, std::string_view instance) override;

  void JoinGroup();
  // Until it ends, the end is asked for, or a second bridge is noticed.
  void ServeConnection();
  // The broker has ended our connection because another client has our name.
  bool IsTakenOver() const;
  bool HasSecondBridge() const;
  // Whether this bridge is the one of the two that ends. It is not when the broker may not know that it leaves: then
  // the second bridge may see that this one is there, end as well, and nobody would be left.
  bool GivesWay();
  void Greet();
  void WaitForTheBroker();
  void CleanUpAfterConnection();
  void TellOfEnd(std::chrono::milliseconds next_attempt) const;
  void PauseFor(std::chrono::milliseconds time);
  void DoChores();
  // Whether the broker knows it.
  bool TakeLeave();

  const Options& options_;
  const Log& log_;
  const Topics topics_;
  const std::string client_name_;
  std::optional<Presence> presence_;  // None if we only read, and so below.
  Group group_;
  Inbox inbox_;
  Broker broker_;
  std::optional<Publisher> publisher_;
  Backoff backoff_;
  std::optional<Clock::time_point> accepted_at_;  // This connection by the broker; none before it is.
  bool greeted_ = false;
  std::vector<std::string> filters_;  // Of the subscription.
  Clock::time_point next_chores_;
  Clock::time_point next_beat_;
};
