// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

// The rows that we set as a member: each key with its last value, in the order of their last changes.
class OwnTable {
 public:
  struct Row {
    std::string key;                           // A combined one.
    std::shared_ptr<const std::string> value;  // Shared with those that are sending it.
  };
  using Rows = std::map<std::uint64_t, Row>;

  // A value that the key has already is no change.
  void Set(const std::string& key, std::string value);

  // The oldest row that was changed after the change of that number; end() if there is none. The first change is 1.
  Rows::const_iterator After(std::uint64_t change) const { return rows_.upper_bound(change); }
  Rows::const_iterator end() const { return rows_.end(); }

  std::uint64_t LastChange() const { return last_change_; }
  std::size_t Size() const { return rows_.size(); }

 private:
  Rows rows_;
  std::map<std::string, std::uint64_t> changes_;  // The number of each key's last change.
  std::uint64_t last_change_ = 0;
};
