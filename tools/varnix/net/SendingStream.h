// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "net/FileDescriptor.h"
#include "net/Loop.h"
#include "net/OwnTable.h"
#include "net/Place.h"
#include "wire/Record.h"

// A connection that somebody made to us. We say who we are; then the other side says its group and its port; then it is
// sent the rows of our table, if there are any, and all that change.
class SendingStream : public Waiter {
 public:
  enum class State {
    kGreeting,  // The other side has not said its group.
    kSending,
    kEnding,  // We have closed our direction behind the last row, and wait for the other side to close its own.
    kLeft,    // Ended before it said its group.
    kTaken,   // Ended as a stream ends of which the other side has read every byte.
    kLost,    // Ended in another way.
  };

  SendingStream(Loop& loop, FileDescriptor socket, std::uint32_t address, const std::string& greeting,
                const OwnTable& rows);
  ~SendingStream() override;

  // Closes our direction behind the last row.
  void Finish() { finishing_ = true; }

  State GetState() const { return state_; }
  bool IsEnded() const { return state_ >= State::kLeft; }
  std::uint32_t Address() const { return peer_.address; }

  // What the other side has said; only from kSending on.
  const Place& Peer() const { return peer_; }
  const std::string& Group() const { return group_; }

  pollfd Awaited() const override;
  void OnReady(short events) override;
  TimePoint Deadline() const override;
  void OnDeadline() override;

 private:
  bool IsConnected() const { return state_ == State::kGreeting || InConversation(); }
  bool InConversation() const { return state_ == State::kSending || state_ == State::kEnding; }
  bool HasMore() const;

  void ReadAnswer();
  void LookForEnd();
  void OnNothingRead(ssize_t size);
  void Send();
  bool HasUnsent() const { return !unsent_.empty() || value_; }
  void SendWhatItTakes();
  void FetchRows();
  void Fetch(const OwnTable::Row& row);
  void CloseOurDirection();
  bool IsAllAcknowledged() const;
  void EndAs(State state);

  FileDescriptor socket_;
  Place peer_;  // The port is 0 until it is known.
  std::string group_;
  const OwnTable& rows_;
  const TimePoint answer_due_;
  State state_ = State::kGreeting;
  bool finishing_ = false;
  RecordReader answer_;
  std::string unsent_;
  // A large value that comes behind it. It is not copied: many may be slow, or never read at all.
  std::shared_ptr<const std::string> value_;
  std::size_t value_sent_ = 0;
  std::uint64_t fetched_ = 0;  // The number of the last change that was put there.
};
