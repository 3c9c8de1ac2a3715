// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "net/SendingStream.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

#include "net/Sockets.h"
#include "wire/Announcement.h"

namespace {

constexpr std::chrono::seconds kMostForTheAnswer{5};
constexpr std::size_t kMostUnsent = 1 << 16, kLargeValue = 1 << 12;
// Header, group, port: no answer is longer.
constexpr std::size_t kMostAnswer = 4 + kMostBytesOfA + kPortBytes;

}  // namespace

SendingStream::SendingStream(Loop& loop, FileDescriptor socket, std::uint32_t address, const std::string& greeting,
                             const OwnTable& rows)
    : Waiter(loop),
      socket_(std::move(socket)),
      peer_{address, 0},
      rows_(rows),
      answer_due_(Clock::now() + kMostForTheAnswer),
      unsent_(greeting) {
  SendAtOnce(socket_);  // What is sent here is put together already.
}

// Takes the answer that may have come: a socket that is closed with bytes unread resets the other side.
SendingStream::~SendingStream() {
  char piece[kMostAnswer];
  if (state_ == State::kGreeting) recv(socket_.Get(), piece, sizeof piece, 0);
}

pollfd SendingStream::Awaited() const {
  if (IsEnded()) return {-1, 0, 0};
  return {socket_.Get(), static_cast<short>(HasMore() ? POLLIN | POLLOUT : POLLIN), 0};
}

bool SendingStream::HasMore() const {
  return HasUnsent() || (state_ == State::kSending && (fetched_ != rows_.LastChange() || finishing_));
}

void SendingStream::OnReady(short events) {
  if (state_ == State::kGreeting && (events & ~POLLOUT) != 0) ReadAnswer();
  if (InConversation() && (events & ~POLLOUT) != 0) LookForEnd();
  if (IsConnected() && (events & POLLOUT) != 0) Send();
}

TimePoint SendingStream::Deadline() const { return state_ == State::kGreeting ? answer_due_ : TimePoint::max(); }

void SendingStream::OnDeadline() { EndAs(State::kLost); }

void SendingStream::ReadAnswer() {
  char piece[kMostAnswer];
  const ssize_t size = recv(socket_.Get(), piece, sizeof piece, 0);
  if (size <= 0) return OnNothingRead(size);
  answer_.Append({piece, static_cast<std::size_t>(size)});
  if (answer_.NextSize() > kMostAnswer || answer_.Waiting() > kMostAnswer) return EndAs(State::kLost);
  Record record;
  if (!answer_.Next(record)) return;
  if (record.b.size() != kPortBytes) return EndAs(State::kLost);
  group_ = record.a;
  const auto high = static_cast<unsigned char>(record.b[0]), low = static_cast<unsigned char>(record.b[1]);
  peer_.port = static_cast<std::uint16_t>(high << 8 | low);
  state_ = State::kSending;
}

// The other side says nothing more: the end is all that there can be to read.
void SendingStream::LookForEnd() {
  char byte = 0;
  const ssize_t size = recv(socket_.Get(), &byte, 1, 0);
  if (size == 1) return EndAs(State::kLost);
  OnNothingRead(size);
}

void SendingStream::OnNothingRead(ssize_t size) {
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (state_ == State::kGreeting) return EndAs(State::kLeft);
  EndAs(size == 0 && state_ == State::kEnding && IsAllAcknowledged() ? State::kTaken : State::kLost);
}

void SendingStream::Send() {
  if (state_ == State::kSending) FetchRows();
  if (HasUnsent()) SendWhatItTakes();
  const bool all_sent = !HasUnsent() && fetched_ == rows_.LastChange();
  if (finishing_ && state_ == State::kSending && all_sent) CloseOurDirection();
}

void SendingStream::SendWhatItTakes() {
  const bool is_value = unsent_.empty();
  const std::string_view rest = is_value ? std::string_view(*value_).substr(value_sent_) : unsent_;
  const ssize_t size = send(socket_.Get(), rest.data(), rest.size(), MSG_NOSIGNAL);
  if (size < 0 && errno != EAGAIN && errno != EINTR) return EndAs(State::kLost);
  const auto sent = static_cast<std::size_t>(std::max<ssize_t>(size, 0));
  if (!is_value) {
    unsent_.erase(0, sent);
  } else if (value_sent_ += sent; value_sent_ == value_->size()) {
    value_.reset();
  }
}

void SendingStream::FetchRows() {
  for (auto row = rows_.After(fetched_); row != rows_.end() && !value_ && unsent_.size() < kMostUnsent; ++row) {
    Fetch(row->second);
    fetched_ = row->first;
  }
}

void SendingStream::Fetch(const OwnTable::Row& row) {
  if (row.value->size() < kLargeValue) return AppendRecord(unsent_, {row.key, *row.value});
  AppendRecordUpToB(unsent_, {row.key, *row.value});
  value_ = row.value;
  value_sent_ = 0;
}

void SendingStream::CloseOurDirection() {
  shutdown(socket_.Get(), SHUT_WR);
  state_ = State::kEnding;
}

// The kernel of the other side has got everything, our end of the stream included.
bool SendingStream::IsAllAcknowledged() const {
  int unacknowledged = 0;
  return ioctl(socket_.Get(), SIOCOUTQ, &unacknowledged) == 0 && unacknowledged == 0;
}

void SendingStream::EndAs(State state) {
  state_ = state;
  socket_ = FileDescriptor();
  unsent_ = std::string();
  value_.reset();
}
