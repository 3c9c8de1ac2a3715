// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "network/TableSender.h"

#include <netinet/tcp.h>
#include <sys/socket.h>

#include <chrono>
#include <new>
#include <optional>
#include <utility>

#include "network/ActiveESNs.h"
#include "network/Member.h"
#include "network/Record.h"
#include "network/StopExceptions.h"
#include "network/SystemCalls.h"
#include "tables/LWatcherSet.h"

using Varnix::LogLevel;

TableSender::TableSender(const Member& member, FileDescriptor socket)
    : member_(member), stream_(std::make_unique<SocketStream>(std::move(socket), member.done_descriptor)) {
  Log(LogLevel::Debug, "tblsndr.ctor", "TableSender(%p) for %s:%d starting", static_cast<void*>(this),
      member_.database.c_str(), stream_->Socket());
}

TableSender::~TableSender() {
  Log(LogLevel::Debug, "tblsndr.dtor", "TableSender(%p) stopping", static_cast<void*>(this));
}

void TableSender::MakeStream() {
  if (!stream_->Open()) LogErrnoAndAbort("tblsndr.cook.fopen", "TableSender: fopencookie failed");
}

void TableSender::Converse(unsigned address, const std::shared_ptr<ActiveESNs>& active_esns,
                           const FoundPeerCallback& found_peer) {
  Varnix::Row answer;
  if (!SendUid() || !ReceiveGroup(answer)) return;
  ConnectBack(answer, address, active_esns, found_peer);
  StreamRows();
}

bool TableSender::SendUid() {
  const PrintableKey uid(member_.uid);
  Log(LogLevel::Debug, "tblsndr.senduid", "TableSender(%p) sending uid: %.*s::%s", static_cast<void*>(this),
      uid.name_length, uid.name, uid.key);
  return WriteRecord({member_.database, member_.uid}, *stream_);
}

bool TableSender::ReceiveGroup(Varnix::Row& answer) {
  return RecordReader(*stream_).Read(answer) && answer.second.size() == kPortSize;
}

void TableSender::ConnectBack(const Varnix::Row& answer, unsigned address,
                              const std::shared_ptr<ActiveESNs>& active_esns, const FoundPeerCallback& found_peer) {
  const auto& [group, port_bytes] = answer;
  const unsigned short port = ToPort(port_bytes.data());
  Log(LogLevel::Debug, "tblsndr.getgrp", "TableSender(%p) received group=\"%s\" port=%u", static_cast<void*>(this),
      group.c_str(), port);
  // Another group is served all the same; it is only not connected back to.
  if (group == member_.group) found_peer({address, port}, active_esns);
}

void TableSender::StreamRows() {
  const std::shared_ptr<Varnix::Watcher> done_watcher = member_.done_table->WatchAll();
  const std::shared_ptr<Varnix::Watcher> row_watcher = member_.send_table->WatchAll();
  const std::shared_ptr<LocalTable::LWatcherSet> set = LocalTable::LWatcherSet::Make({row_watcher, done_watcher});
  for (Clock::time_point now = Clock::now();;) {
    const auto [row, watcher, more] = set->TakeUntil(now + std::chrono::seconds(1));
    now = Clock::now();
    const bool nothing_buffered = buffered_ == 0;
    if (nothing_buffered && PeerIsGone()) return;
    // The set gives no order: a row that is set without a pause would hide the done row, so this looks for it, too.
    // `aborted`: a write has met the stop.
    const bool stops = watcher == done_watcher || (nothing_buffered && !done_watcher->GetChanges().empty());
    if (stops || stream_->GetCookie().aborted) throw AbortRequested();
    if (watcher == row_watcher) SendRow(row, more, now);
  }
}

// After its one record the peer sends nothing. If the socket is readable now, the connection has ended.
bool TableSender::PeerIsGone() const { return PollForInput(stream_->Socket(), std::chrono::milliseconds(0)) == 1; }

void TableSender::SendRow(const Varnix::Row& row, bool more, Clock::time_point now) {
  if (HasHookOfTheProgram()) SendBuffered();  // It may be slow with this row.
  const PrintableKey key(row.first);
  Log(LogLevel::Debug, "tblsndr.strm", "TableSender(%p) sending %.*s::%s (%zu bytes)", static_cast<void*>(this),
      key.name_length, key.name, key.key, row.second.size());
  // A failure needs no answer here: the connection is over then, and the next look at the peer sees it.
  if (HasEmptyField(row)) {
    SendBuffered();  // Such a row stays in the buffer, and must not keep others there.
    if (!more) SetDelay(false);
    BufferRecord(row, *stream_);
    return;
  }
  if (buffered_ == 0) buffered_since_ = now;
  buffered_ += kRecordHeaderSize + row.first.size() + row.second.size();
  if (more && MayStayInBuffer(now)) {
    BufferRecord(row, *stream_);
    return;
  }
  // The parts of a burst share segments, and the last of them does not wait for the peer's acknowledgement.
  if (more) SetDelay(true);
  WriteRecord(row, *stream_);
  buffered_ = 0;
  if (!more) SetDelay(false);
}

bool TableSender::MayStayInBuffer(Clock::time_point now) const {
  constexpr std::size_t kMostBytes = BUFSIZ;
  constexpr std::chrono::microseconds kLongest(500);
  // The program's hook may be slow with the next row.
  return !HasHookOfTheProgram() && buffered_ < kMostBytes && now - buffered_since_ < kLongest;
}

void TableSender::SendBuffered() {
  if (buffered_ > 0) FlushRecords(*stream_);
  buffered_ = 0;
}

void TableSender::SetDelay(bool delayed) {
  if (delayed == delayed_) return;
  delayed_ = delayed;
  const int no_delay = delayed ? 0 : 1;
  setsockopt(stream_->Socket(), IPPROTO_TCP, TCP_NODELAY, &no_delay,
             sizeof no_delay);  // A failure costs a little speed.
}

void SendTable(const Member& member, FileDescriptor socket, unsigned address,
               const std::shared_ptr<ActiveESNs>& active_esns, const FoundPeerCallback& found_peer) {
  std::optional<TableSender> sender;
  try {
    sender.emplace(member, std::move(socket));
  } catch (const std::bad_alloc&) {
    return;  // No memory even to start with: the peer tries again.
  }
  sender->MakeStream();
  try {
    sender->Converse(address, active_esns, found_peer);
  } catch (...) {
    // Whatever it was, the server's stop among them: it ends this stream and nothing else.
  }
}
