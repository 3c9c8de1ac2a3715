// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

// The messages that the broker has not acknowledged yet: at most 64, and no more once they are 4 MiB. While there is no
// room the rows wait in their tables, where those that change again coalesce.
class InFlight {
 public:
  static constexpr int kMostMessages = 64;
  static constexpr std::size_t kEnoughBytes = 4 << 20;

  bool HasRoom() const { return messages_.size() < kMostMessages && bytes_ < kEnoughBytes; }
  bool IsEmpty() const { return messages_.empty(); }
  std::size_t Count() const { return messages_.size(); }

  void Add(int message, std::string topic, std::size_t size);
  // Of all that have been added, the last one's number; and whether any up to such a one is in flight.
  unsigned long Last() const { return added_; }
  bool HasAnyUpTo(unsigned long number) const;
  // The topic of the message, if it was in flight.
  std::optional<std::string> Remove(int message);
  // The connection has ended: the topics of all messages that it leaves without an acknowledgement.
  std::vector<std::string> Clear();

 private:
  struct Message {
    std::string topic;
    std::size_t size;
    unsigned long number;
  };
  std::unordered_map<int, Message> messages_;
  std::size_t bytes_ = 0;
  unsigned long added_ = 0;
};
