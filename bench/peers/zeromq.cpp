// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// ZeroMQ: the writing peer is the server of the guide's "Clone" pattern (ZeroMQ guide, chapter 5): updates with
// sequence numbers over PUB/SUB, snapshots over ROUTER/DEALER, and rows from Set() over an inproc PAIR to the one
// thread that owns both. No high-water marks, so nothing is dropped (zmq_setsockopt(3), ZMQ_SNDHWM, ZMQ_RCVHWM). XPUB
// tells of each subscriber and greets it: it asks for the snapshot once no update can pass it by (chapter 2, the slow
// joiner).

#include <endian.h>
#include <zmq.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <thread>
#include <unordered_map>

#include "Peer.h"

namespace {

constexpr int kMaxBatch = 1000;

int Checked(int result, const char* what) {
  if (result >= 0) return result;
  std::fprintf(stderr, "%s: %s\n", what, zmq_strerror(zmq_errno()));
  std::abort();
}

// Two ports for each table, the same in all processes.
std::string Endpoint(const std::string& address, const std::string& table, int service) {
  return "tcp://" + address + ':' + std::to_string(std::accumulate(table.begin(), table.end(), 10'000) * 2 + service);
}
constexpr int kUpdates = 0;
constexpr int kSnapshots = 1;

void Send(void* socket, std::string_view frame, int flags) {
  Checked(zmq_send(socket, frame.data(), frame.size(), flags), "zmq_send");
}

class Frame {
 public:
  Frame() { zmq_msg_init(&message_); }
  Frame(const Frame&) = delete;
  Frame& operator=(const Frame&) = delete;
  ~Frame() { zmq_msg_close(&message_); }

  bool Receive(void* socket, int flags = 0) {
    if (zmq_msg_recv(&message_, socket, flags) >= 0) return true;
    if (zmq_errno() != EAGAIN) Checked(-1, "zmq_msg_recv");
    return false;
  }
  std::string_view Get() { return {static_cast<const char*>(zmq_msg_data(&message_)), zmq_msg_size(&message_)}; }

 private:
  zmq_msg_t message_;
};

// A row on its way. Numbers count from 1; a greeting has 0. The end of a snapshot has an empty key.
void SendRow(void* socket, std::string_view key, std::uint64_t number, std::string_view value) {
  const std::uint64_t wire_number = htobe64(number);
  Send(socket, key, ZMQ_SNDMORE);
  Send(socket, {reinterpret_cast<const char*>(&wire_number), sizeof wire_number}, ZMQ_SNDMORE);
  Send(socket, value, 0);
}

class ReceivedRow {
 public:
  void Receive(void* socket) {
    key_.Receive(socket);
    number_.Receive(socket);
    value_.Receive(socket);
  }
  std::string_view Key() { return key_.Get(); }
  std::string_view Value() { return value_.Get(); }
  std::uint64_t Number() {
    std::uint64_t number = 0;
    std::memcpy(&number, number_.Get().data(), sizeof number);
    return be64toh(number);
  }

 private:
  Frame key_;
  Frame number_;
  Frame value_;
};

// What the serving thread owns.
class Server {
 public:
  Server(void* rows, void* updates, void* snapshots) : rows_(rows), updates_(updates), snapshots_(snapshots) {}

  [[noreturn]] void Run() {
    for (;;) {
      zmq_pollitem_t items[] = {
          {updates_, 0, ZMQ_POLLIN, 0}, {snapshots_, 0, ZMQ_POLLIN, 0}, {rows_, 0, ZMQ_POLLIN, 0}};
      Checked(zmq_poll(items, 3, -1), "zmq_poll");
      if (items[0].revents != 0) GreetSubscriber();
      if (items[1].revents != 0) SendSnapshot();
      if (items[2].revents != 0) PublishRows();
    }
  }

 private:
  void GreetSubscriber() {
    Frame subscription;
    subscription.Receive(updates_);
    SendRow(updates_, "", 0, "");
  }

  void SendSnapshot() {
    Frame requester, request;
    requester.Receive(snapshots_);
    request.Receive(snapshots_);
    for (const auto& [key, value] : table_) {
      Send(snapshots_, requester.Get(), ZMQ_SNDMORE);
      SendRow(snapshots_, key, last_number_, value);
    }
    Send(snapshots_, requester.Get(), ZMQ_SNDMORE);
    SendRow(snapshots_, "", last_number_, "");
  }

  void PublishRows() {
    Frame key, value;
    for (int i = 0; i < kMaxBatch && key.Receive(rows_, ZMQ_DONTWAIT); ++i) {
      value.Receive(rows_);
      table_[std::string(key.Get())] = value.Get();
      SendRow(updates_, key.Get(), ++last_number_, value.Get());
    }
  }

  void* const rows_;
  void* const updates_;
  void* const snapshots_;
  std::unordered_map<std::string, std::string> table_;
  std::uint64_t last_number_ = 0;
};

class ZeroMqPeer final : public Peer {
 public:
  explicit ZeroMqPeer(const PeerSettings& settings) : settings_(settings), context_(zmq_ctx_new()) {
    if (!settings.written.empty()) StartServing();
  }

  void Set(const std::string& key, const std::string& value) override {
    Send(rows_, key, ZMQ_SNDMORE);
    Send(rows_, value, 0);
  }

  [[noreturn]] void Watch(const Seen& seen) override {
    void* const updates = Open(ZMQ_SUB);
    Checked(zmq_setsockopt(updates, ZMQ_SUBSCRIBE, "", 0), "ZMQ_SUBSCRIBE");
    Connect(updates, kUpdates);
    ReceivedRow row;
    row.Receive(updates);  // Whatever it is: the subscription works.
    const std::uint64_t known = ReadSnapshot(seen);
    for (;;) {
      row.Receive(updates);
      if (row.Number() > known) seen(row.Key(), row.Value());
    }
  }

 private:
  void StartServing() {
    rows_ = Open(ZMQ_PAIR);
    void* const rows_end = Open(ZMQ_PAIR);
    Checked(zmq_bind(rows_, "inproc://rows"), "zmq_bind");
    Checked(zmq_connect(rows_end, "inproc://rows"), "zmq_connect");
    void* const updates = Open(ZMQ_XPUB);
    const int every_subscriber = 1;
    Checked(zmq_setsockopt(updates, ZMQ_XPUB_VERBOSE, &every_subscriber, sizeof(int)), "ZMQ_XPUB_VERBOSE");
    void* const snapshots = Open(ZMQ_ROUTER);
    Checked(zmq_bind(updates, Endpoint("*", settings_.written, kUpdates).c_str()), "zmq_bind");
    Checked(zmq_bind(snapshots, Endpoint("*", settings_.written, kSnapshots).c_str()), "zmq_bind");
    std::thread([=] { Server(rows_end, updates, snapshots).Run(); }).detach();
  }

  void* Open(int type) {
    void* const socket = zmq_socket(context_, type);
    const int unlimited = 0;
    Checked(zmq_setsockopt(socket, ZMQ_SNDHWM, &unlimited, sizeof unlimited), "ZMQ_SNDHWM");
    Checked(zmq_setsockopt(socket, ZMQ_RCVHWM, &unlimited, sizeof unlimited), "ZMQ_RCVHWM");
    return socket;
  }

  void Connect(void* socket, int service) const {
    Checked(zmq_connect(socket, Endpoint(settings_.address, settings_.watched, service).c_str()), "zmq_connect");
  }

  // Returns the number of the last update that the snapshot contains.
  std::uint64_t ReadSnapshot(const Seen& seen) {
    void* const snapshot = Open(ZMQ_DEALER);
    Connect(snapshot, kSnapshots);
    Send(snapshot, "snapshot, please", 0);
    ReceivedRow row;
    for (row.Receive(snapshot); !row.Key().empty(); row.Receive(snapshot)) seen(row.Key(), row.Value());
    zmq_close(snapshot);
    return row.Number();
  }

  const PeerSettings settings_;
  void* const context_;
  void* rows_ = nullptr;
};

}  // namespace

std::unique_ptr<Peer> MakePeer(const PeerSettings& settings) { return std::make_unique<ZeroMqPeer>(settings); }
