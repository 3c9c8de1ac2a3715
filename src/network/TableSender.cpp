#include "network/TableSender.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <new>
#include <optional>
#include <utility>

#include "logging/Log.h"
#include "names/CombinedKey.h"
#include "network/ActiveESNs.h"
#include "network/Record.h"
#include "network/StopExceptions.h"
#include "network/SystemCalls.h"
#include "network/TableServer.h"
#include "tables/LWatcherSet.h"

using Varnix::LogLevel;

TableSender::TableSender(TableServer& server, int socket)
    : server_(server),
      send_table_(server.GetSendTable()),
      done_table_(server.GetDoneTable()),
      uid_(server.GetUid()),
      database_(server.GetDatabase()),
      cookie_(socket, server.GetDoneDescriptor()),
      socket_(socket) {
  Log(LogLevel::Debug, "tblsndr.ctor", "TableSender(%p) for %s:%d starting", static_cast<void*>(this),
      database_.c_str(), socket_);
}

TableSender::~TableSender() {
  Log(LogLevel::Debug, "tblsndr.dtor", "TableSender(%p) stopping", static_cast<void*>(this));
  fclose(stream_);
  close(socket_);
}

void TableSender::MakeStream() {
  stream_ = cookie_.OpenStream();
  if (stream_ == nullptr) LogErrnoAndAbort("tblsndr.cook.fopen", "TableSender: fopencookie failed");
}

void TableSender::Converse(unsigned address, const std::shared_ptr<ActiveESNs>& active_esns) {
  Varnix::Row answer;
  if (!SendUid() || !ReceiveGroup(answer)) return;
  ConnectBack(answer, address, active_esns);
  StreamRows();
}

bool TableSender::SendUid() {
  const PrintableKey uid(uid_);
  Log(LogLevel::Debug, "tblsndr.senduid", "TableSender(%p) sending uid: %.*s::%s", static_cast<void*>(this),
      uid.name_length, uid.name, uid.key);
  return WriteRecord({database_, uid_}, stream_, cookie_);
}

bool TableSender::ReceiveGroup(Varnix::Row& answer) {
  return ReadRecord(answer, stream_, cookie_) && answer.second.size() == 2;
}

void TableSender::ConnectBack(const Varnix::Row& answer, unsigned address,
                              const std::shared_ptr<ActiveESNs>& active_esns) {
  const auto& [group, port_bytes] = answer;
  const unsigned port =
      static_cast<unsigned>(static_cast<unsigned char>(port_bytes[0])) << 8 | static_cast<unsigned char>(port_bytes[1]);
  Log(LogLevel::Debug, "tblsndr.getgrp", "TableSender(%p) received group=\"%s\" port=%u", static_cast<void*>(this),
      group.c_str(), port);
  // Another group is served all the same; it is only not connected back to.
  if (group == server_.GetGroup()) server_.FoundPeer(address, static_cast<unsigned short>(port), active_esns);
}

void TableSender::StreamRows() {
  const std::shared_ptr<Varnix::Watcher> done_watcher = done_table_->WatchAll();
  const std::shared_ptr<Varnix::Watcher> row_watcher = send_table_->WatchAll();
  const std::shared_ptr<LocalTable::LWatcherSet> set = LocalTable::LWatcherSet::Make({row_watcher, done_watcher});
  for (;;) {
    const auto [row, watcher, more] = set->TakeUntil(std::chrono::steady_clock::now() + std::chrono::seconds(1));
    if (PeerIsGone()) return;
    // The set may choose a row that is set again and again for ever. A write that met the stop counts as well.
    if (watcher == done_watcher || cookie_.aborted) throw AbortRequested();
    if (watcher == row_watcher) SendRow(row, more);
  }
}

// The peer never sends after its one record: what can be read by then is the end of the connection.
bool TableSender::PeerIsGone() const {
  pollfd entry = {socket_, POLLIN, 0};
  return poll(&entry, 1, 0) == 1;
}

void TableSender::SendRow(const Varnix::Row& row, bool more) {
  const PrintableKey key(row.first);
  Log(LogLevel::Debug, "tblsndr.strm", "TableSender(%p) sending %.*s::%s (%zu bytes)", static_cast<void*>(this),
      key.name_length, key.name, key.key, row.second.size());
  // The small rows of a burst share segments, and the last of them does not wait for the peer's acknowledgement.
  if (more) SetDelay(true);
  // A failure needs no answer here: the connection is over then, and the next pass sees it.
  WriteRecord(row, stream_, cookie_);
  if (!more) SetDelay(false);
}

void TableSender::SetDelay(bool delayed) {
  if (delayed == delayed_) return;
  delayed_ = delayed;
  const int no_delay = delayed ? 0 : 1;
  setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &no_delay, sizeof no_delay);  // A failure costs a little speed.
}

void SendTable(TableServer& server, int socket, unsigned address, const std::shared_ptr<ActiveESNs>& active_esns) {
  std::optional<TableSender> sender;
  try {
    sender.emplace(server, socket);
  } catch (const std::bad_alloc&) {
    close(socket);  // No memory even to start with: the peer tries again.
    return;
  }
  sender->MakeStream();
  try {
    sender->Converse(address, active_esns);
  } catch (...) {
    // Whatever it was, the server's stop among them: it ends this stream and nothing else.
  }
}
