// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "network/ReceiveLoop.h"

#include <cerrno>
#include <optional>
#include <utility>

#include "network/ActiveESNs.h"
#include "network/Member.h"
#include "network/StopExceptions.h"
#include "network/SystemCalls.h"
#include "network/TableReceiver.h"

using Varnix::LogLevel;

namespace {

constexpr std::chrono::seconds kConnectLimit(5);
constexpr std::chrono::seconds kLongAttempt(9);
constexpr std::chrono::seconds kQuickAttempt(1);
constexpr std::chrono::milliseconds kRetryPause(2000);

}  // namespace

ReceiveLoop::ReceiveLoop(const Member& member, const FoundPlace& place, std::shared_ptr<ActiveESNs> active_esns,
                         const FoundPeerCallback& found_peer)
    : member_(member),
      place_(place),
      active_esns_(std::move(active_esns)),
      found_peer_(found_peer),
      deadline_(place.found_at + kRetryPeriod) {}

void ReceiveLoop::Run() {
  try {
    while (ReceiveOnce()) {
    }
  } catch (const SelfConnect&) {
    // Not logged: each announcement of ours leads here.
  } catch (const AlreadyConnected&) {
    // Not logged: each announcement of a peer that we receive from leads here.
  } catch (const WrongServer&) {
    VARNIX_LOG_OF(member_, LogLevel::Debug, "tblsvr.fnd.rcv.abort.svr",
                  " aborting ReceiveTable for %u:%u because connected to wrong table server", place_.address,
                  place_.port);
  } catch (const AbortRequested&) {
    VARNIX_LOG_OF(member_, LogLevel::Info, "tblsvr.fnd.rcv.abort", " aborting ReceiveTable for %u:%u", place_.address,
                  place_.port);
  }
}

// One attempt, and the pause after it. False when there is nothing more to try.
bool ReceiveLoop::ReceiveOnce() {
  const Clock::time_point started = Clock::now();
  const std::optional<PeerPlace> elsewhere = ReceiveTable(member_, place_, kConnectLimit, active_esns_);
  const Clock::time_point ended = Clock::now();
  if (elsewhere) found_peer_(*elsewhere, active_esns_);
  const Clock::duration lasted = ended - started;
  if (!ExtendOrCheckDeadline(lasted, ended)) return false;
  return lasted >= kQuickAttempt || PauseBeforeRetry();
}

bool ReceiveLoop::ExtendOrCheckDeadline(Clock::duration lasted, Clock::time_point ended) {
  if (lasted >= kLongAttempt) {
    deadline_ = ended + kRetryPeriod;
  } else if (ended >= deadline_) {
    VARNIX_LOG_OF(member_, LogLevel::Info, "tblsvr.fnd.rcv.err.fail", " giving up ReceiveTable for %u:%u retries",
                  place_.address, place_.port);
    return false;
  }
  const long long remaining = std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - ended).count();
  VARNIX_LOG_OF(member_, LogLevel::Info, "tblsvr.fnd.rcv.err",
                " error from ReceiveTable for %u:%u, retrying for %lldms", place_.address, place_.port, remaining);
  return true;
}

bool ReceiveLoop::PauseBeforeRetry() {
  const int ready = PollForInput(member_.done_descriptor, kRetryPause);
  if (ready < 0) {
    if (errno == EINTR) return true;
    Log(LogLevel::Error, "tblsvr.fp.poll", "TableServer: FoundPeer::poll error %d", errno);
    return false;
  }
  if (ready == 0) return true;
  VARNIX_LOG_OF(member_, LogLevel::Info, "tblsvr.fnd.rcv.err.abort", " aborted while retrying ReceiveTable");
  throw AbortRequested();
}
