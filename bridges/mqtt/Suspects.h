// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

// Finds the rows for which a broker ends the connection, so that they can be left out and the others go on.
//
// When the broker cuts a connection off, each message that is without an acknowledgement may be the cause, and each
// that it has refused within the second before. In the next connection these are published one at a time. A row that is
// then alone in flight when the connection is cut off, and that twice before it gets through, is left out; so is one
// that is refused for itself. One that is refused for what may pass, or because we may not write it, is published once
// more: a broker that answers again does not end the connection for it. If the connection is cut off within a second
// all the same, the broker may take its time, so each such row waits that second in the next connection. Where there is
// no second answer, the row is left out after one cut-off more than others. A connection that ends otherwise, or with
// nothing underway, is no proof for or against any.
//
// Not found out is a row that the broker acknowledges without a refusal, or refuses more than a second before it ends
// the connection.
class Suspects {
 public:
  using Time = std::chrono::steady_clock::time_point;

  static constexpr int kStrikes = 2;
  static constexpr std::size_t kMostLeftOut = 1000;  // Beyond, the one that was left out first is tried again.

  // The row that has to be published next, and alone; nothing once there is no suspicion.
  std::optional<std::string> Next() const;
  // Whether that has to wait, with nothing else underway.
  bool NextMustWait(Time now) const;

  // What has become of a row. Those that return a topic convict a row: it is left out from now on.
  void GotThrough(const std::string& topic);
  // For itself.
  std::optional<std::string> WasRefused(const std::string& topic, Time now = std::chrono::steady_clock::now());
  // For what may pass, or because we may not write it.
  void WasRefusedForElse(const std::string& topic, Time now = std::chrono::steady_clock::now());
  // The connection was cut off, and these messages were without an acknowledgement.
  std::optional<std::string> ConnectionWasCutOff(const std::vector<std::string>& unacknowledged,
                                                 Time now = std::chrono::steady_clock::now());
  void ConnectionEndedOtherwise() { first_refused_.reset(); }

  bool LeavesOut(const std::string& topic) const { return !left_out_.empty() && left_out_.count(topic) > 0; }

 private:
  struct Refusal {
    std::string topic;
    Time time;
    bool was_suspect;
  };

  static constexpr std::chrono::seconds kJustBefore{1};
  static constexpr std::size_t kMostRefusals = 64;

  static bool IsJustBefore(Time time, Time now) { return now - time <= kJustBefore; }
  bool IsFirst(const std::string& topic) const { return !suspects_.empty() && suspects_.front() == topic; }
  void RemoveFirst();
  std::optional<std::string> ConvictFirst();
  void NoteRefusal(const std::string& topic, Time now, bool was_suspect);

  std::deque<std::string> suspects_;
  int strikes_ = 0;                    // Of the first one.
  std::optional<Time> first_refused_;  // In this connection, not for itself.
  bool broker_takes_time_ = false;     // Perhaps: it has cut off just after a second answer.
  std::deque<Refusal> refusals_;
  std::unordered_set<std::string> left_out_;
  std::deque<std::string> in_order_;  // Of being left out.
};
