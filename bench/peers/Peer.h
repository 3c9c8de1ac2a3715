// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

// What is compared: a table with one writer, which others watch. Each system implements this as its own documentation
// recommends for the job: a member that comes late sees every row's last value, then what changes.
class Peer {
 public:
  virtual ~Peer() = default;

  // Sets a row of the table that this peer writes, as fast as the system takes it. Called by one thread.
  virtual void Set(const std::string& key, const std::string& value) = 0;

  // Returns once no row is held back in the calling thread; it need not have arrived anywhere.
  virtual void Flush() {}

  using Seen = std::function<void(std::string_view key, std::string_view value)>;

  // Calls `seen` for every row of the table that this peer watches, and again whenever one changes; never returns.
  // Called by one thread, at the same time as Set.
  [[noreturn]] virtual void Watch(const Seen& seen) = 0;
};

struct PeerSettings {
  std::string written;  // The name of the table that this peer writes; empty if none.
  std::string watched;  // Likewise for watching.
  std::string address;  // IPv4 address of the broker, of the other peer, or for broadcasts, as the system needs it.
  std::string name;     // Unique among the peers.
};

// Implemented once by each system; main.cpp is linked with each of them.
std::unique_ptr<Peer> MakePeer(const PeerSettings& settings);
