// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "network/TableServer.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <exception>
#include <memory>
#include <new>
#include <utility>

#include "logging/Log.h"
#include "names/InternalTableName.h"
#include "network/Acceptor.h"
#include "network/ActiveESNs.h"
#include "network/Discovery.h"
#include "network/ReceiveLoop.h"
#include "network/SystemCalls.h"
#include "network/TableSender.h"
#include "tables/LocalTable.h"
#include "tables/LocalTableRegistry.h"

using Varnix::LogLevel;

namespace {

constexpr std::chrono::milliseconds kPauseWithoutMemory(100);

// False when there is no memory.
bool TryToSetUnlogged(LocalTable& table, const Varnix::Row& row) try {
  table.SetUnlogged(row);
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

}  // namespace

TableServer::TableServer(const std::string& uid, const std::string& database,
                         const std::shared_ptr<Varnix::Table>& receive_table,
                         const std::shared_ptr<Varnix::Table>& send_table, const std::string& group,
                         unsigned broadcast_address, PeerTable& peer_table)
    : member_{uid,           database,   group,
              receive_table, send_table, LocalTable::Make(InternalTableName("ts_done", database)),
              &peer_table},
      broadcast_address_(ToSocketAddress({ntohl(broadcast_address), kDiscoveryPort})),
      found_peer_([this](const PeerPlace& place, const std::shared_ptr<ActiveESNs>& active_esns) {
        FoundPeer(place.address, place.port, active_esns);
      }),
      peer_threads_(
          database,
          [this](const FoundPlace& place, const std::shared_ptr<ActiveESNs>& active_esns) {
            ReceiveLoop(member_, place, active_esns, found_peer_).Run();
          },
          [this](FileDescriptor socket, unsigned address, const std::shared_ptr<ActiveESNs>& active_esns) {
            SendTable(member_, std::move(socket), address, active_esns, found_peer_);
          }) {
  member_.server = this;
  VARNIX_LOG_OF(member_, LogLevel::Debug, "tblsvr.ctor", " ctor");
  listener_ = OpenListeningSocket(member_.listen_port);
  discoverer_ = OpenDiscoverySocket();
  done_pipe_ = OpenDonePipe();
  wake_pipe_ = OpenWakePipe();
  member_.done_descriptor = done_pipe_.read_end.Get();
  try {
    StartThreads();
  } catch (...) {
    Stop();
    throw;
  }
}

void TableServer::StartThreads() {
  // Made here, so that lack of memory is this call's failure: on a thread of ours it would end the process.
  auto discovery = std::make_unique<Discovery>(member_, discoverer_.Get(), wake_pipe_.read_end.Get(),
                                               broadcast_address_, found_peer_, peer_threads_.GetActiveESNs());
  discover_thread_ = std::thread([this, discovery = std::move(discovery)] {
    NameThisThread("vrx-find", member_.database.c_str());
    discovery->Run();
  });
  accept_thread_ = std::thread([this] {
    NameThisThread("vrx-acpt", member_.database.c_str());
    Accept();
  });
}

TableServer::~TableServer() {
  try {
    if (!stopped_) Stop();
  } catch (...) {
    // The hook threw; the server has stopped all the same, and nobody is there to be told.
  }
}

void TableServer::Stop() {
  stopped_ = true;
  // Every step is taken, whatever the log hook does: no thread may be left that uses the server.
  std::exception_ptr thrown;
  try {
    SignalDone();
  } catch (...) {
    thrown = std::current_exception();
  }
  RefuseConnections();
  try {
    SetDoneRow();
  } catch (...) {
    thrown = std::current_exception();
  }
  JoinThreads();
  peer_threads_.AwaitAll();
  CloseDescriptors();
  if (thrown) std::rethrow_exception(thrown);
}

void TableServer::SignalDone() {
  if (write(done_pipe_.write_end.Get(), "D", 1) == 1) return;
  Log(LogLevel::Error, "tblsvr.dest", "TableServer: pipe write fail error %d", errno);
}

// A peer whose stream ends connects again at once. Nobody accepts it any more, so it has to be refused: closing the
// listener would reset it, an error in the peer's log. After the done byte, so that the accept thread finds that first.
void TableServer::RefuseConnections() { shutdown(listener_.Get(), SHUT_RD); }

void TableServer::SetDoneRow() {
  const Varnix::Row done("done", "y");
  try {
    member_.done_table->Set(done);
  } catch (...) {
    // An idle sender learns of the stop in no other way.
    while (!TryToSetUnlogged(*member_.done_table, done)) std::this_thread::sleep_for(kPauseWithoutMemory);
    throw;
  }
}

void TableServer::JoinThreads() {
  if (discover_thread_.joinable()) discover_thread_.join();
  if (accept_thread_.joinable()) accept_thread_.join();
}

void TableServer::CloseDescriptors() {
  listener_.Close();
  discoverer_.Close();
  done_pipe_.read_end.Close();
  done_pipe_.write_end.Close();
  wake_pipe_.read_end.Close();
  wake_pipe_.write_end.Close();
}

void TableServer::NetworkChanged() {
  if (write(wake_pipe_.write_end.Get(), "W", 1) == 1) return;
  Log(LogLevel::Error, "tblsvr.nwc", "TableServer: pipe write network changed %d", errno);
}

void TableServer::ForgetInChild() { LocalTableRegistry::LeaveInChild(member_.done_table.get()); }

void TableServer::Accept() {
  Acceptor(member_, listener_.Get(), [this](FileDescriptor& socket, unsigned address) {
    return IncomingConnection(socket, address);
  }).Run();
}

void TableServer::FoundPeer(unsigned address, unsigned short port, std::shared_ptr<ActiveESNs> active_esns) {
  peer_threads_.StartReceiver({address, port}, std::move(active_esns));
}

int TableServer::IncomingConnection(FileDescriptor& socket, unsigned address) {
  return peer_threads_.StartSender(socket, address);
}
