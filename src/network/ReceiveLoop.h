#pragma once

#include <chrono>
#include <memory>

class ActiveESNs;
class TableServer;

// Receives from one found peer, again and again, until its retry period is over: 30 seconds from the start, or from the
// end of the last stream that lived 9 seconds or more. Quick failures wait 2 seconds before the next try.
//
// Threads: one, started for this peer.
class ReceiveLoop {
 public:
  // `address` and `port` are the peer's, in host byte order.
  ReceiveLoop(TableServer& server, unsigned address, unsigned short port, std::shared_ptr<ActiveESNs> active_esns);

  // Returns when it has given up, when it turns out that this peer needs no stream from here, and when the server
  // stops.
  void Run();

 private:
  using Clock = std::chrono::steady_clock;

  bool ReceiveOnce();
  bool MayRetry(Clock::duration lasted, Clock::time_point ended);
  bool PauseBeforeRetry();

  TableServer& server_;
  const unsigned address_;
  const unsigned short port_;
  const std::shared_ptr<ActiveESNs> active_esns_;
  Clock::time_point deadline_;
};
