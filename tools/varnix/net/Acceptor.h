// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstdint>

#include "net/FileDescriptor.h"
#include "net/Loop.h"
#include "net/Place.h"

// A TCP port on which everybody is accepted, until it is closed.
class Acceptor : public Waiter {
 public:
  class Owner {
   public:
    virtual ~Owner() = default;
    // The address is in host byte order.
    virtual void OnAccepted(FileDescriptor socket, std::uint32_t address) = 0;
  };

  Acceptor(Loop& loop, Owner& owner);  // On a port of the system's choice.
  Acceptor(Loop& loop, Owner& owner, const Place& place);

  ~Acceptor() override { Close(); }

  std::uint16_t Port() const { return port_; }

  // Accepts nobody any more. Those who wait are let go in order: closing the listener would reset them.
  void Close();

  pollfd Awaited() const override;
  void OnReady(short events) override;
  TimePoint Deadline() const override { return paused_until_; }
  void OnDeadline() override { paused_until_ = TimePoint::max(); }

 private:
  bool IsPaused() const { return paused_until_ != TimePoint::max(); }
  FileDescriptor Accept(sockaddr_in& peer) const;

  Owner& owner_;
  std::uint16_t port_ = 0;
  FileDescriptor socket_;
  TimePoint paused_until_ = TimePoint::max();
};
