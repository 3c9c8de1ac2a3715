#include "network/ReceiveLoop.h"

#include <poll.h>

#include <cerrno>
#include <utility>

#include "logging/Log.h"
#include "names/CombinedKey.h"
#include "network/ActiveESNs.h"
#include "network/StopExceptions.h"
#include "network/TableReceiver.h"
#include "network/TableServer.h"

using Varnix::LogLevel;

namespace {

constexpr std::chrono::seconds kConnectLimit(5);
constexpr std::chrono::seconds kRetryPeriod(30);
constexpr std::chrono::seconds kSuccess(9);
constexpr std::chrono::seconds kQuickFailure(1);
constexpr std::chrono::milliseconds kPause(2000);

}  // namespace

ReceiveLoop::ReceiveLoop(TableServer& server, unsigned address, unsigned short port,
                         std::shared_ptr<ActiveESNs> active_esns)
    : server_(server),
      address_(address),
      port_(port),
      active_esns_(std::move(active_esns)),
      deadline_(Clock::now() + kRetryPeriod) {}

void ReceiveLoop::Run() {
  const PrintableKey uid(server_.GetUid());
  try {
    while (ReceiveOnce()) {
    }
  } catch (const SelfConnect&) {
  } catch (const AlreadyConnected&) {
  } catch (const WrongServer&) {
    Log(LogLevel::Debug, "tblsvr.fnd.rcv.abort.svr",
        "TableServer for %.*s::%s::%s(%p) aborting ReceiveTable for %u:%u because connected to wrong table server",
        uid.name_length, uid.name, uid.key, server_.GetDatabase().c_str(), static_cast<void*>(&server_), address_,
        port_);
  } catch (const AbortRequested&) {
    Log(LogLevel::Info, "tblsvr.fnd.rcv.abort", "TableServer for %.*s::%s::%s(%p) aborting ReceiveTable for %u:%u",
        uid.name_length, uid.name, uid.key, server_.GetDatabase().c_str(), static_cast<void*>(&server_), address_,
        port_);
  }
}

// One stream, and the pause after it. False when there is nothing more to try.
bool ReceiveLoop::ReceiveOnce() {
  const Clock::time_point started = Clock::now();
  ReceiveTable(server_, address_, port_, kConnectLimit, active_esns_);
  const Clock::time_point ended = Clock::now();
  const Clock::duration lasted = ended - started;
  if (!MayRetry(lasted, ended)) return false;
  return lasted >= kQuickFailure || PauseBeforeRetry();
}

bool ReceiveLoop::MayRetry(Clock::duration lasted, Clock::time_point ended) {
  const PrintableKey uid(server_.GetUid());
  if (lasted >= kSuccess) {
    deadline_ = ended + kRetryPeriod;
  } else if (ended >= deadline_) {
    Log(LogLevel::Info, "tblsvr.fnd.rcv.err.fail",
        "TableServer for %.*s::%s::%s(%p) giving up ReceiveTable for %u:%u retries", uid.name_length, uid.name, uid.key,
        server_.GetDatabase().c_str(), static_cast<void*>(&server_), address_, port_);
    return false;
  }
  const long long remaining = std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - ended).count();
  Log(LogLevel::Info, "tblsvr.fnd.rcv.err",
      "TableServer for %.*s::%s::%s(%p) error from ReceiveTable for %u:%u, retrying for %lldms", uid.name_length,
      uid.name, uid.key, server_.GetDatabase().c_str(), static_cast<void*>(&server_), address_, port_, remaining);
  return true;
}

bool ReceiveLoop::PauseBeforeRetry() {
  pollfd done = {server_.GetDoneDescriptor(), POLLIN, 0};
  if (poll(&done, 1, static_cast<int>(kPause.count())) < 0) {
    if (errno == EINTR) return true;
    Log(LogLevel::Error, "tblsvr.fp.poll", "TableServer: FoundPeer::poll error %d", errno);
    return false;
  }
  if (done.revents == 0) return true;
  const PrintableKey uid(server_.GetUid());
  Log(LogLevel::Info, "tblsvr.fnd.rcv.err.abort",
      "TableServer for %.*s::%s::%s(%p) aborted while retrying ReceiveTable", uid.name_length, uid.name, uid.key,
      server_.GetDatabase().c_str(), static_cast<void*>(&server_));
  throw AbortRequested();
}
