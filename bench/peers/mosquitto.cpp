// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Mosquitto: a retained message for each row, QoS 1, on the topic TABLE/KEY; the library's own thread sends. For
// throughput a thousand messages in flight instead of 20 (mosquitto.h, mosquitto_max_inflight_messages_set;
// mosquitto.conf(5), max_inflight_messages), behind them queues without limit, and no Nagle delay (set_tcp_nodelay).

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <cstdio>
#include <cstdlib>

#include "Peer.h"

namespace {

constexpr int kPort = 1883;
constexpr int kInFlight = 1000;  // With far more, the library spends its time walking the list of them.
constexpr int kKeepAliveSeconds = 60;
constexpr int kQos = 1;

void Check(int result) {
  if (result == MOSQ_ERR_SUCCESS) return;
  std::fprintf(stderr, "mosquitto: %s\n", mosquitto_strerror(result));
  std::abort();
}

class MosquittoPeer final : public Peer {
 public:
  explicit MosquittoPeer(const PeerSettings& settings) : settings_(settings) {
    mosquitto_lib_init();
    if (!settings.written.empty()) StartWriting();
  }

  void Set(const std::string& key, const std::string& value) override {
    const std::string topic = settings_.written + '/' + key;
    Check(mosquitto_publish(writer_, nullptr, topic.c_str(), static_cast<int>(value.size()), value.data(), kQos, true));
  }

  [[noreturn]] void Watch(const Seen& seen) override {
    seen_ = &seen;
    mosquitto* const watcher = MakeClient("-watcher");
    mosquitto_connect_callback_set(watcher, Subscribe);
    mosquitto_message_callback_set(watcher, Report);
    Check(mosquitto_connect(watcher, settings_.address.c_str(), kPort, kKeepAliveSeconds));
    for (;;) Check(mosquitto_loop_forever(watcher, -1, 1));
  }

 private:
  mosquitto* MakeClient(const char* role) {
    mosquitto* const client = mosquitto_new((settings_.name + role).c_str(), true, this);
    Check(mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5));
    Check(mosquitto_int_option(client, MOSQ_OPT_SEND_MAXIMUM, kInFlight));
    Check(mosquitto_int_option(client, MOSQ_OPT_RECEIVE_MAXIMUM, kInFlight));
    Check(mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1));
    return client;
  }

  void StartWriting() {
    writer_ = MakeClient("-writer");
    mosquitto_connect_callback_set(writer_, [](mosquitto*, void* peer, int result) {
      Check(result);
      static_cast<MosquittoPeer*>(peer)->connected_ = true;
    });
    Check(mosquitto_connect(writer_, settings_.address.c_str(), kPort, kKeepAliveSeconds));
    while (!connected_) Check(mosquitto_loop(writer_, -1, 1));  // What is published before may be sent twice.
    Check(mosquitto_loop_start(writer_));
  }

  static void Subscribe(mosquitto* watcher, void* peer, int result) {
    Check(result);
    const std::string& table = static_cast<MosquittoPeer*>(peer)->settings_.watched;
    Check(mosquitto_subscribe(watcher, nullptr, (table + "/#").c_str(), kQos));
  }

  static void Report(mosquitto*, void* peer, const mosquitto_message* message) {
    const MosquittoPeer& self = *static_cast<MosquittoPeer*>(peer);
    const std::string_view topic = message->topic;
    (*self.seen_)(topic.substr(self.settings_.watched.size() + 1),
                  {static_cast<const char*>(message->payload), static_cast<std::size_t>(message->payloadlen)});
  }

  const PeerSettings settings_;
  mosquitto* writer_ = nullptr;
  bool connected_ = false;
  const Seen* seen_ = nullptr;
};

}  // namespace

std::unique_ptr<Peer> MakePeer(const PeerSettings& settings) { return std::make_unique<MosquittoPeer>(settings); }
