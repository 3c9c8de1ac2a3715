#pragma once

#include <netinet/in.h>
#include <poll.h>

#include <chrono>
#include <deque>
#include <string>

class TableServer;

constexpr unsigned short kDiscoveryPort = 1975;

// Makes a table server known to its group and finds the others: broadcasts its TCP port and group name at once and then
// every 60 seconds, after a network change at 0, 2, 4 and 6 seconds; and reports the sender of each announcement of the
// same group to the server, our own ones included. The handshake of the streams sorts out who that is.
//
// Threads: one, the server's discovery thread. Made by the caller that starts it, who can be told of want of memory.
// Errors: a poll that fails, or a wake pipe that cannot be read, is logged and ends the process.
class Discovery {
 public:
  explicit Discovery(TableServer& server);

  // Returns when the server stops.
  void Run();

 private:
  using Clock = std::chrono::steady_clock;

  enum Entry { kDone, kWake, kSocket, kEntries };

  bool AnnounceWhenDue(Clock::time_point now);
  void AdvanceSchedule();
  bool WaitForEvents(Clock::time_point now);
  void StartBurst();
  void ReceiveAnnouncement();

  TableServer& server_;
  const std::string announcement_;
  Clock::time_point next_send_;
  // The gap after the next announcement is on top, at the back. The bottom entry stays for ever.
  std::deque<std::chrono::milliseconds> intervals_;
  pollfd entries_[kEntries];
};
