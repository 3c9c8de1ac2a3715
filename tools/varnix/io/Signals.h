// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include "net/FileDescriptor.h"
#include "net/Loop.h"

// Takes the signals that ask to end, SIGINT, SIGTERM, SIGHUP and SIGQUIT, so that what was begun can be ended well.
// There is one of these at a time.
class Signals : public Waiter {
 public:
  explicit Signals(Loop& loop);
  ~Signals() override;

  // The first that has come; 0 if none has.
  int First() const { return first_; }

  // Whether one has come after Forgive().
  bool Again() const { return again_; }

  // Goes on after the first signal; the next one is told by Again().
  void Forgive() { forgiven_ = true; }

  // Readable as soon as a signal has come, until the loop has had its turn.
  int Descriptor() const { return read_end_.Get(); }

  // Ends this process by the first signal, as if it had never been taken.
  void EndByFirst();

  // Takes those that have come, also while the loop has no turn.
  void Look();

  pollfd Awaited() const override { return {read_end_.Get(), POLLIN, 0}; }
  void OnReady(short) override { Look(); }

 private:
  FileDescriptor read_end_, write_end_;
  int first_ = 0;
  bool forgiven_ = false, again_ = false;
};
