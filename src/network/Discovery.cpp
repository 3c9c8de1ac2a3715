// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "network/Discovery.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string_view>
#include <utility>

#include "network/Member.h"
#include "network/SystemCalls.h"

using Varnix::LogLevel;

namespace {

constexpr std::chrono::milliseconds kSteadyInterval(60000);
constexpr std::chrono::milliseconds kBurstInterval(2000);
constexpr int kBurstIntervals = 3;
constexpr std::size_t kLongestDatagram = 256;

}  // namespace

Discovery::Discovery(const Member& member, int socket, int wake_descriptor, const sockaddr_in& broadcast_address,
                     const FoundPeerCallback& found_peer, std::shared_ptr<ActiveESNs> active_esns)
    : member_(member),
      broadcast_address_(broadcast_address),
      found_peer_(found_peer),
      active_esns_(std::move(active_esns)),
      announcement_(ToPortBytes(member.listen_port) + member.group),
      next_send_(Clock::now()),
      entries_{{member.done_descriptor, POLLIN, 0}, {wake_descriptor, POLLIN, 0}, {socket, POLLIN, 0}} {}

void Discovery::Run() {
  for (;;) {
    const Clock::time_point now = Clock::now();
    if (!AnnounceWhenDue(now)) continue;
    if (!WaitForEvents(now)) continue;
    if (entries_[kDone].revents != 0) return;
    if (entries_[kWake].revents != 0) StartBurst();
    if (entries_[kSocket].revents != 0) ReceiveAnnouncement();
  }
}

// False when it was interrupted and has to be tried again.
bool Discovery::AnnounceWhenDue(Clock::time_point now) {
  if (now < next_send_) return true;
  if (sendto(entries_[kSocket].fd, announcement_.data(), announcement_.size(), 0, Generic(broadcast_address_),
             sizeof broadcast_address_) < 0) {
    if (errno == EINTR) return false;
    // No error for the log: a device without a network is an ordinary thing.
    Log(LogLevel::Debug, "tblsvr.dscv.sendto", "TableServer: Discover::sendto error %d", errno);
  }
  AdvanceSchedule();
  return true;
}

void Discovery::AdvanceSchedule() {
  // From when it was due, not from now, so that the schedule does not drift.
  next_send_ += burst_intervals_left_ > 0 ? kBurstInterval : kSteadyInterval;
  if (burst_intervals_left_ > 0) --burst_intervals_left_;
}

// False when it was interrupted. The time-out is not clamped: when the schedule has fallen more than an interval
// behind, it is negative, and the wait is for an event alone.
bool Discovery::WaitForEvents(Clock::time_point now) {
  const auto time_out = std::chrono::duration_cast<std::chrono::milliseconds>(next_send_ - now).count();
  if (poll(entries_, kEntries, static_cast<int>(time_out)) >= 0) return true;
  if (errno == EINTR) return false;
  LogErrnoAndAbort("tblsvr.dscv.poll", "TableServer: Discover::poll error %d");
}

void Discovery::StartBurst() {
  char wake_byte;
  if (read(entries_[kWake].fd, &wake_byte, 1) != 1) {
    // It is the wake pipe. The text stays: field logs are read by it.
    LogErrnoAndAbort("tblsvr.dscv.done.rd", "TableServer: Discover::poll done pipe read error %d");
  }
  VARNIX_LOG_OF(member_, LogLevel::Debug, "tblsvr.dscv.chg", " notified of network change");
  next_send_ = Clock::now();
  burst_intervals_left_ = kBurstIntervals;
}

void Discovery::ReceiveAnnouncement() {
  char datagram[kLongestDatagram];
  sockaddr_in source{};
  socklen_t source_size = sizeof source;
  // MSG_TRUNC gives the real size of a datagram that is longer than the buffer.
  const ssize_t received =
      recvfrom(entries_[kSocket].fd, datagram, sizeof datagram, MSG_TRUNC, Generic(source), &source_size);
  if (received < 0) {
    Log(LogLevel::Error, "tblsvr.dscv.rcv", "TableServer: Discover::recvfrom error %d", errno);
    return;
  }
  const auto size = static_cast<std::size_t>(received);
  if (size < kPortSize || size > kLongestDatagram) {
    Log(LogLevel::Error, "tblsvr.dscv.sz", "TableServer: Discover::recvfrom: wrong size: %d", static_cast<int>(size));
    return;
  }
  if (std::string_view(datagram + kPortSize, size - kPortSize) != member_.group) return;
  found_peer_({ToPeerPlace(source).address, ToPort(datagram)}, active_esns_);
}
