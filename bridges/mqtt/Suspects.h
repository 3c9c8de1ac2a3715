#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

// Finds the rows for which a broker ends the connection, so that they can be left out and the others go on.
//
// A connection that the broker has cut off leaves up to 64 messages without an acknowledgement, and each may be the
// cause. In the next connection they are published one at a time. A row that is then alone in flight when the
// connection is cut off, and that twice running, is left out. A network that fails convicts nobody.
class Suspects {
 public:
  static constexpr int kStrikes = 2;
  static constexpr std::size_t kMostLeftOut = 1000;  // Beyond, the one that was left out first is tried again.

  // The connection was cut off, and these messages were without an acknowledgement: the topic of a row that is left out
  // from now on, if that convicts one.
  std::optional<std::string> ConnectionWasCutOff(const std::vector<std::string>& unacknowledged);

  // The row that has to be published next, and alone; nothing once there is no suspicion.
  std::optional<std::string> Next() const;
  // The suspect Next() has got through, or has no value to publish.
  void Clear();

  bool LeavesOut(const std::string& topic) const { return !left_out_.empty() && left_out_.count(topic) > 0; }

 private:
  void LeaveOut(const std::string& topic);

  std::deque<std::string> suspects_;
  int strikes_ = 0;  // Of the first one.
  std::unordered_set<std::string> left_out_;
  std::deque<std::string> in_order_;  // Of being left out.
};
