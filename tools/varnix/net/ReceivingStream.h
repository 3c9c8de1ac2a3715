// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <string>
#include <string_view>

#include "net/End.h"
#include "net/FileDescriptor.h"
#include "net/Loop.h"
#include "net/Place.h"
#include "wire/Record.h"

// A connection that we make to a member. It says which database it serves and who it is; we answer with a group and a
// port; then it sends every row that it has set, and each that it sets from then on.
class ReceivingStream : public Waiter {
 public:
  // What the member is told. If the group is its own, it connects back to this port.
  struct Answer {
    std::string group;
    std::uint16_t port = 0;
    // Without, no row is read, and the member is told that we are gone. It is given some time to end its stream.
    bool wants_rows = true;
  };

  class Owner {
   public:
    virtual ~Owner() = default;
    // Before the answer. The owner may end the stream.
    virtual void OnGreeting(ReceivingStream& stream, std::string_view database, std::string_view identity) = 0;
    virtual void OnRow(ReceivingStream& stream, std::string_view key, std::string_view value) = 0;
    // Some bytes have come, and are held until the row that they are part of is complete.
    virtual void OnBytes(ReceivingStream& stream) = 0;
  };

  ReceivingStream(Loop& loop, const Place& place, Answer answer, Owner& owner);

  const Place& Peer() const { return place_; }
  TimePoint Begun() const { return begun_; }
  bool IsReceiving() const { return state_ == State::kReceiving; }

  // Whether a row has come in part.
  bool IsAmidRow() const { return reader_.Waiting() > 0; }

  // How much memory this needs.
  std::size_t Held() const { return reader_.Held(); }

  bool IsEnded() const { return state_ == State::kEnded; }
  const End& GetEnd() const { return end_; }
  void EndAs(const End& end);

  // The same, and gives back what has come of a row; not while one is looked at.
  void DropAs(const End& end);

  pollfd Awaited() const override;
  void OnReady(short events) override;
  TimePoint Deadline() const override;
  void OnDeadline() override;

 private:
  enum class State { kConnecting, kGreeting, kReceiving, kEnded };

  bool WantsBytes() const { return state_ == State::kGreeting || answer_.wants_rows; }
  void OnConnected();
  void OnSomeTaken();
  void Read();
  void OnNothingRead(ssize_t size);
  void TakeRecords();
  void OnGreeting(const Record& record);
  void SendAnswer();

  const Place place_;
  const Answer answer_;
  Owner& owner_;
  const TimePoint begun_;
  FileDescriptor socket_;
  State state_ = State::kConnecting;
  TimePoint due_;  // When the step that is under way must be done.
  End end_;
  RecordReader reader_;
  bool interrupted_ = false;  // There may be whole records in it, which are taken before more is read.
};
