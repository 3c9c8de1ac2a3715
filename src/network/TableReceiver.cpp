#include "network/TableReceiver.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <optional>

#include "logging/Log.h"
#include "names/CombinedKey.h"
#include "network/ActiveESNs.h"
#include "network/Record.h"
#include "network/StopExceptions.h"
#include "network/SystemCalls.h"
#include "network/TableServer.h"

using Varnix::LogLevel;

TableReceiver::TableReceiver(TableServer& server, unsigned address, unsigned short port)
    : server_(server),
      receive_table_(server.GetReceiveTable()),
      database_(server.GetDatabase()),
      group_(server.GetGroup()),
      address_(address),
      port_(port),
      listen_port_(server.GetListenPort()) {
  Log(LogLevel::Debug, "tblrcvr.ctor", "TableReceiver(%p) for %s:%u:%u starting", static_cast<void*>(this),
      database_.c_str(), address_, port_);
}

TableReceiver::~TableReceiver() {
  Log(LogLevel::Debug, "tblrcvr.dtor", "TableReceiver(%p) stopping", static_cast<void*>(this));
  if (stream_ != nullptr) fclose(stream_);
  close(socket_);
}

void TableReceiver::MakeSocket() {
  socket_ = socket(AF_INET, SOCK_STREAM, 0);
  if (socket_ < 0) LogErrnoAndAbort("tblrcvr.sock", "TableReceiver: socket error %d");
  CloseOnExec(socket_);
  SetKeepalive();
  cookie_ = std::make_unique<Cookie>(socket_, server_.GetDoneDescriptor());
}

// A peer that has fallen silent is noticed after about 4 seconds.
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
  return setsockopt(socket_, level, option, &value, sizeof value) == 0;
}

bool TableReceiver::Connect(std::chrono::nanoseconds time_limit) {
  if (!SetNonBlocking()) return StartConnecting();
  const bool connected = ConnectWithin(time_limit);
  SetBlocking();
  return connected;
}

bool TableReceiver::SetNonBlocking() {
  const int flags = fcntl(socket_, F_GETFL);
  if (flags < 0) {
    Log(LogLevel::Info, "tblrcvr.sock.nonblck.getfl", "TableReceiver: fcntl failed getting flags: %d", errno);
    return false;
  }
  if (fcntl(socket_, F_SETFL, flags | O_NONBLOCK) < 0) {
    Log(LogLevel::Info, "tblrcvr.sock.nonblck.setfl", "TableReceiver: fcntl failed setting O_NONBLOCK: %d", errno);
    return false;
  }
  return true;
}

bool TableReceiver::StartConnecting() {
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(port_);
  peer.sin_addr.s_addr = htonl(address_);
  return connect(socket_, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) == 0;
}

bool TableReceiver::ConnectWithin(std::chrono::nanoseconds time_limit) {
  if (StartConnecting()) return true;
  return errno == EINPROGRESS && WaitForConnection(time_limit) && CheckConnection();
}

bool TableReceiver::WaitForConnection(std::chrono::nanoseconds time_limit) {
  const auto time_out = std::chrono::duration_cast<std::chrono::milliseconds>(time_limit).count();
  pollfd entries[] = {{server_.GetDoneDescriptor(), POLLIN, 0}, {socket_, POLLOUT, 0}};
  int ready;
  do {
    ready = poll(entries, 2, static_cast<int>(time_out));
  } while (ready < 0 && errno == EINTR);
  return ready > 0 && entries[0].revents == 0 && entries[1].revents != 0;
}

bool TableReceiver::CheckConnection() {
  int error = 0;
  socklen_t size = sizeof error;
  if (getsockopt(socket_, SOL_SOCKET, SO_ERROR, &error, &size) < 0) {
    Log(LogLevel::Info, "tblrcvr.sock.opt.err", "TableReceiver: getsockopt failed checking SO_ERROR: %d", errno);
    return false;
  }
  if (error != 0) {
    // The number is errno, not `error`: field logs are read with that in mind.
    Log(LogLevel::Info, "tblrcvr.sock.conn.err", "TableReceiver: connect failed: %d", errno);
    return false;
  }
  Log(LogLevel::Debug, "tblrcvr.sock.conn.succ", "TableReceiver: connect succeeded");
  return true;
}

void TableReceiver::SetBlocking() {
  const int flags = fcntl(socket_, F_GETFL);
  if (flags < 0) {
    Log(LogLevel::Info, "tblrcvr.sock.blck.getfl", "TableReceiver: fcntl failed getting flags: %d", errno);
  } else if (fcntl(socket_, F_SETFL, flags & ~O_NONBLOCK) < 0) {
    Log(LogLevel::Info, "tblrcvr.sock.blck.setfl", "TableReceiver: fcntl failed clearing O_NONBLOCK: %d", errno);
  }
}

bool TableReceiver::IsConnectedToAnother() const {
  sockaddr_in own{};
  socklen_t size = sizeof own;
  getsockname(socket_, reinterpret_cast<sockaddr*>(&own), &size);  // A failure leaves the address of nobody.
  return own.sin_port != htons(port_) || own.sin_addr.s_addr != htonl(address_);
}

bool TableReceiver::MakeStream() {
  stream_ = cookie_->OpenStream();
  if (stream_ != nullptr) return true;
  Log(LogLevel::Error, "tblrcvr.cook.fopen", "TableReceiver: fopencoookie failed");
  return false;
}

bool TableReceiver::ReceiveUid(std::string& uid) {
  Varnix::Row record;
  if (!ReadRecord(record, stream_, *cookie_)) return false;
  if (record.first != database_) throw WrongServer();
  uid = std::move(record.second);
  const PrintableKey printable(uid);
  Log(LogLevel::Debug, "tblrcvr.gotuid", "TableReceiver(%p) got uid: %.*s::%s", static_cast<void*>(this),
      printable.name_length, printable.name, printable.key);
  if (uid == server_.GetUid()) throw SelfConnect();
  return true;
}

bool TableReceiver::SendGroup(const std::string& peer_uid) {
  const PrintableKey own(server_.GetUid());
  const PrintableKey peer(peer_uid);
  Log(LogLevel::Debug, "tblsvr.fnd", "TableServer for %.*s::%s::%s(%p) found peer: %.*s::%s %u:%u", own.name_length,
      own.name, own.key, database_.c_str(), static_cast<void*>(&server_), peer.name_length, peer.name, peer.key,
      address_, port_);
  Log(LogLevel::Debug, "tblrcvr.strm.grp", "TableReceiver(%p) sending group=\"%s\" port=%u", static_cast<void*>(this),
      group_.c_str(), listen_port_);
  const std::string port_bytes = {static_cast<char>(listen_port_ >> 8), static_cast<char>(listen_port_ & 0xFF)};
  return WriteRecord({group_, port_bytes}, stream_, *cookie_);
}

void TableReceiver::ReceiveRows() {
  Varnix::Row row;
  while (ReadRecord(row, stream_, *cookie_)) receive_table_->Set(row);
}

void ReceiveTable(TableServer& server, unsigned address, unsigned short port, std::chrono::nanoseconds time_limit,
                  const std::shared_ptr<ActiveESNs>& active_esns) {
  std::optional<PeerPlace> elsewhere;
  try {
    TableReceiver receiver(server, address, port);
    receiver.MakeSocket();
    std::string uid;
    if (!receiver.Connect(time_limit) || !receiver.IsConnectedToAnother() || !receiver.MakeStream() ||
        !receiver.ReceiveUid(uid)) {
      return;
    }
    const EsnRegistration registration(active_esns, uid, {address, port}, elsewhere);
    if (!registration.Inserted()) throw AlreadyConnected();
    if (receiver.SendGroup(uid)) receiver.ReceiveRows();
  } catch (const std::bad_alloc&) {
    // A peer whose rows do not fit in memory loses its stream; it must not take the process with it.
  }
  // The peer had restarted, or moved, before the end of its old stream was seen. Its next announcement may be a minute
  // away.
  if (elsewhere) server.FoundPeer(elsewhere->address, elsewhere->port, active_esns);
}
