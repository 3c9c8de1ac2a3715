// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "web/HttpConnection.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "net/Sockets.h"

namespace {

constexpr std::chrono::seconds kMostToAsk{5}, kMostWithoutProgress{30}, kMostToLeave{2};
constexpr std::chrono::minutes kMostToRead{5};  // Of an answer that has an end.
constexpr std::chrono::seconds kBetweenSigns{10};
// What changes again within this time goes once. No eye sees the difference.
constexpr std::chrono::milliseconds kBetweenPieces{50};
// The kernel is to keep little that is not the newest.
constexpr int kKernelBuffer = 1 << 16;

bool IsWhole(const std::string& request) {
  return request.find("\r\n\r\n") != std::string::npos || request.find("\n\n") != std::string::npos;
}

bool IsToBeTriedAgain(int error) { return error == EAGAIN || error == EINTR; }

}  // namespace

HttpConnection::HttpConnection(Loop& loop, FileDescriptor socket, Site& site)
    : Waiter(loop), site_(site), socket_(std::move(socket)), due_(Clock::now() + kMostToAsk) {
  SendAtOnce(socket_);
  KeepAlive(socket_);
  LimitSendBuffer(socket_, kKernelBuffer);
}

pollfd HttpConnection::Awaited() const {
  if (state_ == State::kEnded) return {-1, 0, 0};
  const bool reads = state_ != State::kAnswering || IsBrowser();
  return {socket_.Get(), static_cast<short>((reads ? POLLIN : 0) | (WantsToWrite() ? POLLOUT : 0)), 0};
}

bool HttpConnection::WantsToWrite() const {
  if (state_ != State::kAnswering) return false;
  return HasUnsent() || !feed_ || (feed_->HasMore() && !pausing_);
}

void HttpConnection::OnReady(short events) {
  if (state_ == State::kAsking) return ReadRequest();
  if ((events & ~POLLOUT) != 0) LookForEnd();
  if (state_ == State::kAnswering && (events & POLLOUT) != 0) Write();
}

TimePoint HttpConnection::Deadline() const {
  if (state_ == State::kEnded) return TimePoint::max();
  if (state_ != State::kAnswering || WantsToWrite()) return due_;
  return feed_->HasMore() ? not_before_ : next_sign_;
}

void HttpConnection::OnDeadline() {
  const TimePoint now = Clock::now();
  if (state_ != State::kAnswering || WantsToWrite()) {
    if (now >= due_) EndAs(State::kEnded, now);
  } else if (feed_->HasMore()) {
    pausing_ = now < not_before_;
  } else if (GiveSignWhenDue(now)) {
    NoteProgress();
  }
}

void HttpConnection::ReadRequest() {
  char piece[kMostRequest];
  const ssize_t size = recv(socket_.Get(), piece, sizeof piece, 0);
  if (size < 0 && IsToBeTriedAgain(errno)) return;
  if (size <= 0) return EndAs(State::kEnded, due_);
  request_.append(piece, static_cast<std::size_t>(size));
  const bool too_long = request_.size() > kMostRequest;
  if (too_long || IsWhole(request_)) Begin(too_long ? site_.ToTooLong() : site_.To(request_));
}

void HttpConnection::Begin(Site::Answer answer) {
  state_ = State::kAnswering;
  request_ = std::string();
  unsent_ = std::move(answer.text);
  feed_ = std::move(answer.feed);
  const TimePoint now = Clock::now();
  if (!IsBrowser()) {
    end_ = now + kMostToRead;
    ResetWhenClosed(true);
  }
  next_sign_ = now + kBetweenSigns;
  NoteProgress();
}

// Nobody has anything more to say.
void HttpConnection::LookForEnd() {
  char piece[4096];
  const ssize_t size = recv(socket_.Get(), piece, sizeof piece, 0);
  if (size == 0 || (size < 0 && !IsToBeTriedAgain(errno))) EndAs(State::kEnded, due_);
}

void HttpConnection::Write() {
  if (!HasUnsent() && feed_ && feed_->HasMore()) {
    unsent_.clear();
    sent_ = 0;
    GiveSignWhenDue(Clock::now());
    feed_->Fill(unsent_);
    const TimePoint now = Clock::now();
    pausing_ = !feed_->HasMore();
    not_before_ = now + kBetweenPieces;
    NoteProgress();
  }
  if (!SendUnsent() || HasUnsent()) return;
  unsent_ = std::string();
  sent_ = 0;
  if (feed_ && (feed_->HasMore() || feed_->IsLiving())) return;
  ResetWhenClosed(false);
  shutdown(socket_.Get(), SHUT_WR);
  EndAs(State::kLeaving, Clock::now() + kMostToLeave);
}

// Also while rows come all the time: else a reader would not learn that the clock of the server was set.
bool HttpConnection::GiveSignWhenDue(TimePoint now) {
  if (now < next_sign_) return false;
  unsent_ = feed_->SignOfLife();
  next_sign_ = now + kBetweenSigns;
  return true;
}

// False when the connection is lost.
bool HttpConnection::SendUnsent() {
  if (!HasUnsent()) return true;
  const ssize_t size = send(socket_.Get(), unsent_.data() + sent_, unsent_.size() - sent_, MSG_NOSIGNAL);
  if (size < 0 && IsToBeTriedAgain(errno)) return true;
  if (size < 0) {
    EndAs(State::kEnded, due_);
    return false;
  }
  sent_ += static_cast<std::size_t>(size);
  NoteProgress();
  return true;
}

void HttpConnection::NoteProgress() { due_ = std::min(Clock::now() + kMostWithoutProgress, end_); }

// The end of the connection is the end of the answer. So one that is cut must not end as a whole one does: with a reset
// the reader sees that something is missing. An answer without an end misses nothing. This is told to the system while
// there is time: a process that is killed has none.
void HttpConnection::ResetWhenClosed(bool is_reset) {
  const linger how{is_reset ? 1 : 0, 0};
  setsockopt(socket_.Get(), SOL_SOCKET, SO_LINGER, &how, sizeof how);
}

void HttpConnection::EndAs(State state, TimePoint due) {
  state_ = state;
  due_ = due;
  feed_.reset();
  unsent_ = std::string();
  sent_ = 0;
  if (state == State::kEnded) socket_ = FileDescriptor();
}
