// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "network/TableReceiver.h"

#include <netinet/tcp.h>
#include <sys/socket.h>

#include <new>

#include "network/ActiveESNs.h"
#include "network/Connector.h"
#include "network/Member.h"
#include "network/PeerTable.h"
#include "network/Record.h"
#include "network/ServerSockets.h"
#include "network/StopExceptions.h"
#include "network/SystemCalls.h"

using Varnix::LogLevel;

namespace {

// As long as keepalive takes: see SetKeepalive().
constexpr std::chrono::milliseconds kSilenceLimit = std::chrono::seconds(4);

}  // namespace

TableReceiver::TableReceiver(const Member& member, const PeerPlace& place) : member_(member), place_(place) {
  Log(LogLevel::Debug, "tblrcvr.ctor", "TableReceiver(%p) for %s:%u:%u starting", static_cast<void*>(this),
      member_.database.c_str(), place_.address, place_.port);
}

TableReceiver::~TableReceiver() {
  Log(LogLevel::Debug, "tblrcvr.dtor", "TableReceiver(%p) stopping", static_cast<void*>(this));
}

void TableReceiver::MakeSocket() {
  FileDescriptor socket = OpenSocket(SOCK_STREAM);
  if (!socket.IsOpen()) LogErrnoAndAbort("tblrcvr.sock", "TableReceiver: socket error %d");
  stream_ = std::make_unique<SocketStream>(std::move(socket), member_.done_descriptor);
  SetKeepalive();
}

// A peer that has fallen silent is noticed after about 4 seconds: one idle, and three questions a second apart.
void TableReceiver::SetKeepalive() {
  if (!SetOption(SOL_SOCKET, SO_KEEPALIVE, 1)) {
    Log(LogLevel::Info, "tblrcvr.sock.ka", "TableReceiver: setsockopt failed setting SO_KEEPALIVE");
  }
  if (!SetOption(IPPROTO_TCP, TCP_KEEPIDLE, 1)) {
    Log(LogLevel::Info, "tblrcvr.sock.kid", "TableReceiver: setsockopt failed setting TCP_KEEPIDLE");
  }
  if (!SetOption(IPPROTO_TCP, TCP_KEEPINTVL, 1)) {
    Log(LogLevel::Info, "tblrcvr.sock.kiv", "TableReceiver: setsockopt failed setting TCP_KEEPINTVL");
  }
  if (!SetOption(IPPROTO_TCP, TCP_KEEPCNT, 3)) {
    Log(LogLevel::Info, "tblrcvr.sock.ki", "TableReceiver: setsockopt failed setting TCP_KEEPCNT");
  }
}

bool TableReceiver::SetOption(int level, int option, int value) const {
  return setsockopt(stream_->Socket(), level, option, &value, sizeof value) == 0;
}

bool TableReceiver::Connect(std::chrono::nanoseconds time_limit) {
  return Connector(stream_->Socket(), place_, member_.done_descriptor).Connect(time_limit);
}

bool TableReceiver::MakeStream() {
  if (stream_->Open()) return true;
  // Misspelled, and it stays: field logs are read by it.
  Log(LogLevel::Error, "tblrcvr.cook.fopen", "TableReceiver: fopencoookie failed");
  return false;
}

bool TableReceiver::ReceiveUid(std::string& uid) {
  Varnix::Row record;
  if (!RecordReader(*stream_).Read(record)) return false;
  if (record.first != member_.database) throw WrongServer();
  uid = std::move(record.second);
  const PrintableKey printable(uid);
  Log(LogLevel::Debug, "tblrcvr.gotuid", "TableReceiver(%p) got uid: %.*s::%s", static_cast<void*>(this),
      printable.name_length, printable.name, printable.key);
  if (uid == member_.uid) throw SelfConnect();
  return true;
}

bool TableReceiver::SendGroup(const std::string& peer_uid) {
  const PrintableKey peer(peer_uid);
  VARNIX_LOG_OF(member_, LogLevel::Debug, "tblsvr.fnd", " found peer: %.*s::%s %u:%u", peer.name_length, peer.name,
                peer.key, place_.address, place_.port);
  Log(LogLevel::Debug, "tblrcvr.strm.grp", "TableReceiver(%p) sending group=\"%s\" port=%u", static_cast<void*>(this),
      member_.group.c_str(), member_.listen_port);
  // Keepalive asks nothing while a record is on its way to a peer that has just died.
  SetOption(IPPROTO_TCP, TCP_USER_TIMEOUT, static_cast<int>(kSilenceLimit.count()));
  return WriteRecord({member_.group, ToPortBytes(member_.listen_port)}, *stream_);
}

void TableReceiver::ReceiveRows() {
  RecordReader reader(*stream_);
  Varnix::Row row;
  while (reader.Read(row)) member_.receive_table->Set(row);
}

std::optional<PeerPlace> ReceiveTable(const Member& member, const PeerPlace& place, std::chrono::nanoseconds time_limit,
                                      const std::shared_ptr<ActiveESNs>& active_esns) {
  // Set when the registration ends, and not before. A peer that was refused elsewhere meanwhile has restarted there, or
  // moved, before the end of its old stream was seen. Its next announcement may be a minute away.
  std::optional<PeerPlace> elsewhere;
  try {
    TableReceiver receiver(member, place);
    receiver.MakeSocket();
    std::string uid;
    if (!receiver.Connect(time_limit) || !receiver.MakeStream() || !receiver.ReceiveUid(uid)) return std::nullopt;
    const EsnRegistration registration(active_esns, uid, place, elsewhere);
    if (!registration.Inserted()) throw AlreadyConnected();
    if (receiver.SendGroup(uid)) {
      const PeerTableEntry shown(*member.peer_table, uid, place);
      receiver.ReceiveRows();
    }
  } catch (const std::bad_alloc&) {
    // A peer whose rows do not fit in memory loses its stream; it must not take the process with it.
  }
  return elsewhere;
}
