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
  void Arrived(std::string_view topic, std::string_view payload) override { inbox_.Take(topic, payload); }

  void JoinGroup();
  // Until it ends, or the end of the program is asked for.
  void ServeConnection();
  void Greet();
  void WaitForTheBroker();
  void CleanUpAfterConnection();
  void TellOfEnd(std::chrono::milliseconds next_attempt) const;
  void PauseFor(std::chrono::milliseconds time);
  void DoChores();
  void TakeLeave();

  const Options& options_;
  const Log& log_;
  const Topics topics_;
  const std::string client_name_;
  Group group_;
  Inbox inbox_;
  Broker broker_;
  std::optional<Publisher> publisher_;  // None if we only read.
  Backoff backoff_;
  std::optional<Clock::time_point> accepted_at_;  // This connection by the broker; none before it is.
  bool greeted_ = false;
  Clock::time_point next_chores_;
  Clock::time_point next_beat_;
};
