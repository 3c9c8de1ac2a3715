// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "net/ReceivingStream.h"

#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "net/Member.h"
#include "net/Sockets.h"

namespace {

constexpr std::chrono::seconds kMostForConnecting{5}, kMostForGreeting{5}, kMostForLeaving{5};
constexpr std::size_t kPiece = 1 << 16;
constexpr std::size_t kLongestIdentity = 1 + kMostBytesOfNames;
// Header, database, identity: what claims to be longer is not waited for.
constexpr std::size_t kMostOfGreeting = 4 + kMostBytesOfA + kLongestIdentity;
// A member that never pauses lets the others have their turn, also if each of its rows takes long.
constexpr int kMostPieces = 4;
constexpr std::chrono::milliseconds kMostOfATurn{5};

}  // namespace

ReceivingStream::ReceivingStream(Loop& loop, const Place& place, Answer answer, Owner& owner)
    : Waiter(loop), place_(place), answer_(std::move(answer)), owner_(owner), begun_(Clock::now()) {
  int error = 0;
  socket_ = BeginConnecting(place, error);
  due_ = begun_ + kMostForConnecting;
  if (error != 0) EndAs({End::Kind::kUnreachable, error});
}

pollfd ReceivingStream::Awaited() const {
  if (state_ == State::kConnecting) return {socket_.Get(), POLLOUT, 0};
  if (interrupted_) return {-1, 0, 0};
  return {socket_.Get(), static_cast<short>(WantsBytes() ? POLLIN : POLLRDHUP), 0};
}

TimePoint ReceivingStream::Deadline() const {
  if (interrupted_) return begun_;  // At once.
  return IsEnded() || (IsReceiving() && answer_.wants_rows) ? TimePoint::max() : due_;
}

void ReceivingStream::OnDeadline() {
  if (interrupted_) {
    TakeRecords();
    return OnSomeTaken();
  }
  if (state_ == State::kConnecting) return EndAs({End::Kind::kUnreachable, ETIMEDOUT});
  EndAs({End::Kind::kSilent});
}

void ReceivingStream::OnReady(short) {
  if (state_ == State::kConnecting) return OnConnected();
  if (!WantsBytes()) return EndAs({End::Kind::kClosed});
  Read();
  OnSomeTaken();
}

void ReceivingStream::OnSomeTaken() {
  if (!IsAmidRow()) reader_.GiveBackMemory();
  if (!IsEnded()) owner_.OnBytes(*this);
}

void ReceivingStream::OnConnected() {
  const int error = FinishConnecting(socket_);
  if (error != 0) return EndAs({End::Kind::kUnreachable, error});
  KeepAlive(socket_);
  LimitSilence(socket_);  // Of a member that dies before it has taken our answer.
  state_ = State::kGreeting;
  due_ = Clock::now() + kMostForGreeting;
}

void ReceivingStream::Read() {
  char piece[kPiece];
  for (int i = 0; i < kMostPieces && !IsEnded() && !interrupted_ && WantsBytes(); ++i) {
    const ssize_t size = recv(socket_.Get(), piece, sizeof piece, 0);
    if (size <= 0) return OnNothingRead(size);
    reader_.Append({piece, static_cast<std::size_t>(size)});
    TakeRecords();
    if (static_cast<std::size_t>(size) < sizeof piece) break;
  }
}

void ReceivingStream::OnNothingRead(ssize_t size) {
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (size < 0) return EndAs({End::Kind::kBroken, errno});
  EndAs({state_ == State::kGreeting ? End::Kind::kLeftAtOnce : End::Kind::kClosed});
}

void ReceivingStream::TakeRecords() {
  const TimePoint end = Clock::now() + kMostOfATurn;
  Record record;
  interrupted_ = false;
  if (state_ == State::kGreeting && reader_.NextSize() > kMostOfGreeting) return EndAs({End::Kind::kLongName});
  while (!IsEnded() && !interrupted_ && reader_.Next(record)) {
    if (state_ == State::kGreeting) {
      OnGreeting(record);
    } else {
      owner_.OnRow(*this, record.a, record.b);
      interrupted_ = IsAmidRow() && Clock::now() >= end;
    }
  }
}

void ReceivingStream::OnGreeting(const Record& record) {
  if (record.b.size() > kLongestIdentity) return EndAs({End::Kind::kLongName});
  owner_.OnGreeting(*this, record.a, record.b);
  if (IsEnded()) return;
  state_ = State::kReceiving;
  SendAnswer();
  if (answer_.wants_rows) return;
  reader_.Drop();  // Rows may have come already.
  due_ = Clock::now() + kMostForLeaving;
}

// In one piece: the buffer of a new connection takes it. Together with our end of the stream, if no row is wanted, so
// that it is not taken for the answer of a member that stays.
void ReceivingStream::SendAnswer() {
  const char port[] = {static_cast<char>(answer_.port >> 8), static_cast<char>(answer_.port & 0xFF)};
  std::string record;
  AppendRecord(record, {answer_.group, {port, sizeof port}});
  const int more = answer_.wants_rows ? 0 : MSG_MORE;
  const ssize_t sent = send(socket_.Get(), record.data(), record.size(), MSG_NOSIGNAL | more);
  if (sent != static_cast<ssize_t>(record.size())) {
    EndAs({End::Kind::kBroken, sent < 0 ? errno : ECONNRESET});
  } else if (!answer_.wants_rows) {
    shutdown(socket_.Get(), SHUT_WR);  // So the member ends its stream.
  }
}

void ReceivingStream::EndAs(const End& end) {
  state_ = State::kEnded;
  interrupted_ = false;
  end_ = end;
  socket_ = FileDescriptor();
}

void ReceivingStream::DropAs(const End& end) {
  EndAs(end);
  reader_.Drop();
}
