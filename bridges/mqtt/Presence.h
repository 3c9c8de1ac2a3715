// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Broker.h"
#include "Log.h"
#include "Topic.h"

// A name that nobody else has: 16 digits by chance.
std::string RandomName();

// Tells the other sites whether the bridge of this one is there: PREFIX/SITE/$state is "1", or "0" by the will or when
// we take leave. Finds out, too, whether there is a second bridge for the site, to which the broker gives our
// connection. Some brokers say so as they end ours. The others show it: the state carries who has set it, as a
// property, and when we are back it is that of somebody else. Once, this may be an old state that the broker has read
// from its disk. A bridge that is there has a new name at each of its connections, so two names, at one connection of
// ours and at the next, are its proof.
//
// One of the two bridges ends. Before, it takes leave, with a state that is nobody's: the other one does not see it any
// more.
//
// Threads: that of the owner alone.
class Presence {
 public:
  Presence(const Topics& topics, const std::string& site);

  const std::string& Topic() const { return topic_; }
  // The will of the connection that is made next.
  Broker::State NextWill();

  // The broker has accepted a connection: subscribe to Topic() before this.
  void Announce(Broker& broker);
  void TakeLeave(Broker& broker);
  // Whether the broker has what was sent last.
  bool IsKnown() const { return !message_; }

  // Whether the message was of ours.
  bool Acknowledged(int message, int reason, const Log& log);
  // The state as the broker has it.
  void Saw(std::string_view instance);
  bool HasSeenAnother() const { return has_seen_another_; }

 private:
  std::string NameOfConnection() const { return instance_ + '-' + std::to_string(connections_); }

  const std::string topic_;
  const std::string instance_;  // No other bridge has it, and none that has run before.
  unsigned long connections_ = 0;
  std::string other_;              // Whose state it was at the last connection, if it was not ours.
  std::optional<int> message_;     // Underway.
  bool was_connected_ = false;     // Before this connection, so that another bridge must be there now.
  bool is_connected_ = false;      // Or was once.
  bool has_seen_another_ = false;  // At this connection.
};
