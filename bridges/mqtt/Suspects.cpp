#include "Suspects.h"

#include <utility>

std::optional<std::string> Suspects::ConnectionWasCutOff(const std::vector<std::string>& unacknowledged) {
  if (unacknowledged.empty()) return std::nullopt;
  const bool alone = unacknowledged.size() == 1 && !suspects_.empty() && unacknowledged.front() == suspects_.front();
  if (!alone) {
    suspects_.assign(unacknowledged.begin(), unacknowledged.end());
    strikes_ = 0;
    return std::nullopt;
  }
  if (++strikes_ < kStrikes) return std::nullopt;
  std::string convict = suspects_.front();
  LeaveOut(convict);
  Clear();
  return convict;
}

std::optional<std::string> Suspects::Next() const {
  if (suspects_.empty()) return std::nullopt;
  return suspects_.front();
}

void Suspects::Clear() {
  suspects_.pop_front();
  strikes_ = 0;
}

void Suspects::LeaveOut(const std::string& topic) {
  if (in_order_.size() == kMostLeftOut) {
    left_out_.erase(in_order_.front());
    in_order_.pop_front();
  }
  if (left_out_.insert(topic).second) in_order_.push_back(topic);
}
