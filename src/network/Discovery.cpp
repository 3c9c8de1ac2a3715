#include "network/Discovery.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string_view>

#include "logging/Log.h"
#include "names/CombinedKey.h"
#include "network/SystemCalls.h"
#include "network/TableServer.h"

using Varnix::LogLevel;

namespace {

constexpr std::chrono::milliseconds kSteadyInterval(60000);
constexpr std::chrono::milliseconds kBurstInterval(2000);
constexpr int kBurstIntervals = 3;
constexpr std::size_t kPortSize = 2;
constexpr std::size_t kLongestDatagram = 256;

std::string MakeAnnouncement(unsigned short port, const std::string& group) {
  const char port_bytes[kPortSize] = {static_cast<char>(port >> 8), static_cast<char>(port & 0xFF)};
  return std::string(port_bytes, kPortSize) + group;
}

}  // namespace

Discovery::Discovery(TableServer& server)
    : server_(server),
      announcement_(MakeAnnouncement(server.listen_port_, server.group_)),
      next_send_(Clock::now()),
      intervals_{kSteadyInterval},
      entries_{{server.done_pipe_.read_end, POLLIN, 0},
               {server.wake_pipe_.read_end, POLLIN, 0},
               {server.discover_fd_, POLLIN, 0}} {}

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
  const auto* address = reinterpret_cast<const sockaddr*>(&server_.broadcast_addr_);
  if (sendto(server_.discover_fd_, announcement_.data(), announcement_.size(), 0, address,
             sizeof server_.broadcast_addr_) < 0) {
    if (errno == EINTR) return false;
    // No error for the log: a device without a network is an ordinary thing.
    Log(LogLevel::Debug, "tblsvr.dscv.sendto", "TableServer: Discover::sendto error %d", errno);
  }
  AdvanceSchedule();
  return true;
}

void Discovery::AdvanceSchedule() {
  next_send_ += intervals_.back();  // From when it was due, not from now, so that the schedule does not drift.
  if (intervals_.size() > 1) intervals_.pop_back();
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
    LogErrnoAndAbort("tblsvr.dscv.done.rd", "TableServer: Discover::poll done pipe read error %d");
  }
  const PrintableKey uid(server_.uid_);
  Log(LogLevel::Debug, "tblsvr.dscv.chg", "TableServer for %.*s::%s::%s(%p) notified of network change",
      uid.name_length, uid.name, uid.key, server_.database_.c_str(), static_cast<void*>(&server_));
  next_send_ = Clock::now();
  intervals_.resize(1);
  intervals_.insert(intervals_.end(), kBurstIntervals, kBurstInterval);
}

void Discovery::ReceiveAnnouncement() {
  char datagram[kLongestDatagram];
  sockaddr_in source{};
  socklen_t source_size = sizeof source;
  // MSG_TRUNC gives the real size of a datagram that is longer than the buffer.
  const ssize_t received = recvfrom(entries_[kSocket].fd, datagram, sizeof datagram, MSG_TRUNC,
                                    reinterpret_cast<sockaddr*>(&source), &source_size);
  if (received < 0) {
    Log(LogLevel::Error, "tblsvr.dscv.rcv", "TableServer: Discover::recvfrom error %d", errno);
    return;
  }
  const auto size = static_cast<std::size_t>(received);
  if (size < kPortSize || size > kLongestDatagram) {
    Log(LogLevel::Error, "tblsvr.dscv.sz", "TableServer: Discover::recvfrom: wrong size: %d", static_cast<int>(size));
    return;
  }
  if (std::string_view(datagram + kPortSize, size - kPortSize) != server_.group_) return;
  const int port = static_cast<unsigned char>(datagram[0]) << 8 | static_cast<unsigned char>(datagram[1]);
  server_.FoundPeer(ntohl(source.sin_addr.s_addr), static_cast<unsigned short>(port), server_.active_esns_);
}
