// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "Broker.h"

#include <mqtt_protocol.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <utility>

#include "BrokerWords.h"
#include "InFlight.h"
#include "Signals.h"

namespace {

constexpr int kKeepAliveSeconds = 20;
constexpr std::chrono::seconds kLongestConnect(10);
constexpr std::chrono::seconds kLongestSilence(10);  // Until the broker answers to a connection.
constexpr std::uint32_t kLargestPacket = 16 << 20;   // Well above the largest row, so that we see what is too large.
constexpr int kQos = 1;
constexpr int kMostReads = 100;  // At a time, so that what arrives does not keep us from sending.

struct PropertiesFree {
  void operator()(mosquitto_property* properties) const { mosquitto_property_free_all(&properties); }
};
using Properties = std::unique_ptr<mosquitto_property, PropertiesFree>;

constexpr const char* kInstance = "instance";

Properties PropertiesOf(const Broker::State& state) {
  mosquitto_property* list = nullptr;
  if (!state.instance.empty() && mosquitto_property_add_string_pair(&list, MQTT_PROP_USER_PROPERTY, kInstance,
                                                                    state.instance.c_str()) != MOSQ_ERR_SUCCESS) {
    throw std::bad_alloc();
  }
  return Properties(list);
}

// Empty if the message does not tell.
std::string InstanceOf(const mosquitto_property* properties) {
  if (properties == nullptr) return "";
  char *name = nullptr, *value = nullptr;
  std::string instance;
  if (mosquitto_property_read_string_pair(properties, MQTT_PROP_USER_PROPERTY, &name, &value, false) != nullptr &&
      name != nullptr && value != nullptr && std::strcmp(name, kInstance) == 0) {
    instance = value;
  }
  std::free(name);
  std::free(value);
  return instance;
}

bool HasInput(int descriptor) {
  int bytes = 0;
  return ioctl(descriptor, FIONREAD, &bytes) == 0 && bytes > 0;
}

bool HasHungUp(int descriptor) {
  pollfd state{descriptor, POLLRDHUP, 0};
  return poll(&state, 1, 0) == 1 && (state.revents & (POLLRDHUP | POLLHUP)) != 0;
}

bool IsFolder(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Nobody is there to type a passphrase.
int NoPassphrase(char*, int, int, void*) { return 0; }

bool IsMissing(const mosquitto_property* properties, int feature) {
  std::uint8_t available = 1;
  return mosquitto_property_read_byte(properties, feature, &available, false) != nullptr && available == 0;
}

// What the sender of a row can do nothing about: the row itself cannot be sent.
bool IsForTheMessage(int result) {
  return result == MOSQ_ERR_INVAL || result == MOSQ_ERR_PAYLOAD_SIZE || result == MOSQ_ERR_MALFORMED_UTF8 ||
         result == MOSQ_ERR_OVERSIZE_PACKET;
}

bool IsByTheOtherSide(int result, int error) {
  return result == MOSQ_ERR_CONN_LOST || (result == MOSQ_ERR_ERRNO && (error == EPIPE || error == ECONNRESET));
}

}  // namespace

Broker::Broker(const Options& options, std::string client_name, BrokerListener& listener, const Log& log)
    : options_(options), client_name_(std::move(client_name)), listener_(listener), log_(log) {
  mosquitto_lib_init();
}

Broker::~Broker() {
  mosquitto_destroy(client_);
  mosquitto_lib_cleanup();
}

bool Broker::Connect(const std::optional<State>& will) {
  MakeClient(will);
  if (ended_) return false;
  const int result = ConnectClient();
  const int error = errno;
  RethrowWhatWasThrown();
  if (result != MOSQ_ERR_SUCCESS) {
    EndWith(BrokerEnd::Cause::kNetwork, WordsForCall(result, error, detail_));
    return false;
  }
  const int patience_ms = 1000 * kKeepAliveSeconds;  // For data that is not acknowledged.
  setsockopt(Descriptor(), IPPROTO_TCP, TCP_USER_TIMEOUT, &patience_ms, sizeof patience_ms);
  answer_is_due_ = Clock::now() + kLongestSilence;
  next_chores_ = {};
  return true;
}

void Broker::MakeClient(const std::optional<State>& will) {
  mosquitto_destroy(std::exchange(client_, nullptr));
  accepted_ = ended_ = false;
  end_ = {};
  detail_.clear();
  client_ = mosquitto_new(client_name_.c_str(), true, this);
  if (client_ == nullptr) throw std::bad_alloc();
  mosquitto_int_option(client_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
  mosquitto_int_option(client_, MOSQ_OPT_SEND_MAXIMUM, InFlight::kMostMessages);
  mosquitto_int_option(client_, MOSQ_OPT_RECEIVE_MAXIMUM, InFlight::kMostMessages);
  mosquitto_int_option(client_, MOSQ_OPT_TCP_NODELAY, 1);
  SetCallbacks();
  ListenToTheLibrary(true);
  if (!options_.user.empty()) {
    mosquitto_username_pw_set(client_, options_.user.c_str(), options_.password ? options_.password->c_str() : nullptr);
  }
  if (will) SetWill(*will);
  if (options_.UsesTls()) SetTls();
}

void Broker::SetCallbacks() {
  mosquitto_connect_v5_callback_set(
      client_, [](mosquitto*, void* self, int reason, int, const mosquitto_property* properties) {
        static_cast<Broker*>(self)->Guard([&](Broker& broker) { broker.OnConnect(reason, properties); });
      });
  mosquitto_disconnect_v5_callback_set(client_, [](mosquitto*, void* self, int reason, const mosquitto_property*) {
    static_cast<Broker*>(self)->Guard([&](Broker& broker) { broker.OnDisconnect(reason); });
  });
  mosquitto_publish_v5_callback_set(
      client_, [](mosquitto*, void* self, int message, int reason, const mosquitto_property*) {
        static_cast<Broker*>(self)->Guard([&](Broker& broker) { broker.listener_.Acknowledged(message, reason); });
      });
  mosquitto_subscribe_v5_callback_set(client_, [](mosquitto*, void* self, int, int count, const int* reasons,
                                                  const mosquitto_property*) {
    static_cast<Broker*>(self)->Guard([&](Broker& broker) { broker.listener_.Subscribed({reasons, reasons + count}); });
  });
  mosquitto_message_v5_callback_set(client_, [](mosquitto*, void* self, const mosquitto_message* message,
                                                const mosquitto_property* properties) {
    static_cast<Broker*>(self)->Guard([&](Broker& broker) {
      broker.listener_.Arrived(
          message->topic, {static_cast<const char*>(message->payload), static_cast<std::size_t>(message->payloadlen)},
          InstanceOf(properties));
    });
  });
}

// libmosquitto tells something about each packet, so it is asked only for as long as the connection is being made.
void Broker::ListenToTheLibrary(bool listen) {
  const auto on_log = [](mosquitto*, void* self, int level, const char* text) {
    static_cast<Broker*>(self)->Guard([&](Broker& broker) { broker.OnLog(level, text); });
  };
  mosquitto_log_callback_set(client_, listen || log_.Writes(Log::Level::Debug) ? +on_log : nullptr);
}

void Broker::SetWill(const State& will) {
  Properties properties = PropertiesOf(will);
  const int result = mosquitto_will_set_v5(client_, will.topic.c_str(), static_cast<int>(will.payload.size()),
                                           will.payload.data(), kQos, true, properties.get());
  if (result != MOSQ_ERR_SUCCESS) throw std::runtime_error("the will cannot be set");
  static_cast<void>(properties.release());  // The client has it.
}

void Broker::SetTls() {
  const auto or_null = [](const std::string& path) { return path.empty() ? nullptr : path.c_str(); };
  const bool folder = IsFolder(options_.ca);
  const int result =
      mosquitto_tls_set(client_, folder ? nullptr : options_.ca.c_str(), folder ? options_.ca.c_str() : nullptr,
                        or_null(options_.cert), or_null(options_.key), NoPassphrase);
  if (result == MOSQ_ERR_NOMEM) throw std::bad_alloc();
  // They may be there again at the next attempt: whoever renews certificates takes a moment for it.
  if (result != MOSQ_ERR_SUCCESS) EndWith(BrokerEnd::Cause::kNetwork, "the files for TLS cannot be used");
}

int Broker::ConnectClient() {
  mosquitto_property* list = nullptr;
  if (mosquitto_property_add_int32(&list, MQTT_PROP_MAXIMUM_PACKET_SIZE, kLargestPacket) != MOSQ_ERR_SUCCESS) {
    throw std::bad_alloc();
  }
  const Properties properties(list);
  const Signals::LetIn let_in(kLongestConnect);
  return mosquitto_connect_bind_v5(client_, options_.host.c_str(), options_.port, kKeepAliveSeconds, nullptr,
                                   properties.get());
}

void Broker::Serve(bool readable) {
  if (readable && HasConnection()) CheckDescriptor();
  if (HasConnection()) {
    const Gathering gathering(*this);
    for (int reads = 0; readable && reads < kMostReads; ++reads) {
      Check(mosquitto_loop_read(client_, 1));  // One packet, mostly.
      readable = HasConnection() && HasInput(Descriptor());
    }
    if (HasConnection() && WantsToWrite()) Check(mosquitto_loop_write(client_, 1));
  }
  const Clock::time_point now = Clock::now();
  if (HasConnection() && now >= next_chores_) {
    next_chores_ = now + std::chrono::seconds(1);
    Check(mosquitto_loop_misc(client_));
  }
  if (HasConnection() && Descriptor() < 0) EndWith(BrokerEnd::Cause::kCutOff, "it has ended the connection");
  if (HasConnection() && !accepted_ && now >= answer_is_due_) GiveUp();
  RethrowWhatWasThrown();
}

Broker::Outcome Broker::Publish(const std::string& topic, std::string_view payload, int& message, std::string& why) {
  const int result = mosquitto_publish_v5(client_, &message, topic.c_str(), static_cast<int>(payload.size()),
                                          payload.data(), kQos, true, nullptr);
  if (result == MOSQ_ERR_SUCCESS) return Outcome::kSent;
  if (IsForTheMessage(result)) {
    why = WordsForCall(result, 0, "");
    return Outcome::kRefused;
  }
  Check(result);
  return Outcome::kConnectionEnded;
}

std::optional<int> Broker::PublishState(const State& state) {
  const Properties properties = PropertiesOf(state);
  int message = 0;
  const int result =
      mosquitto_publish_v5(client_, &message, state.topic.c_str(), static_cast<int>(state.payload.size()),
                           state.payload.data(), kQos, true, properties.get());
  Check(result);
  if (result != MOSQ_ERR_SUCCESS) return std::nullopt;
  return message;
}

void Broker::Subscribe(const std::vector<std::string>& filters) {
  std::vector<char*> pointers;
  pointers.reserve(filters.size());
  for (const std::string& filter : filters) pointers.push_back(const_cast<char*>(filter.c_str()));
  Check(mosquitto_subscribe_multiple(client_, nullptr, static_cast<int>(pointers.size()), pointers.data(), kQos,
                                     MQTT_SUB_OPT_NO_LOCAL, nullptr));
}

void Broker::Disconnect() {
  if (HasConnection()) mosquitto_disconnect_v5(client_, MQTT_RC_NORMAL_DISCONNECTION, nullptr);
}

void Broker::OnConnect(int reason, const mosquitto_property* properties) {
  if (IsRefusal(reason)) return EndWith(BrokerEnd::Cause::kNetwork, WordsForRefusedConnection(reason));
  if (IsMissing(properties, MQTT_PROP_RETAIN_AVAILABLE)) {
    return EndWith(BrokerEnd::Cause::kNetwork, "it keeps no retained messages");
  }
  if (IsMissing(properties, MQTT_PROP_MAXIMUM_QOS)) return EndWith(BrokerEnd::Cause::kNetwork, "it has no QoS 1");
  accepted_ = true;
  ListenToTheLibrary(false);
  listener_.BrokerIsThere();
}

void Broker::OnDisconnect(int reason) {
  // Below are results of libmosquitto, which the call that has failed returns, too.
  if (reason == MQTT_RC_SESSION_TAKEN_OVER) EndWith(BrokerEnd::Cause::kTakenOver, WordsForReason(reason));
  if (!IsRefusal(reason)) return;
  EndWith(MayBeForAMessage(reason) ? BrokerEnd::Cause::kCutOff : BrokerEnd::Cause::kNetwork, WordsForReason(reason));
}

void Broker::OnLog(int level, const char* text) {
  if (level == MOSQ_LOG_ERR) detail_ = Printable(text);
  log_.Write(Log::Level::Debug, "libmosquitto: " + Printable(text));
}

template <class Call>
void Broker::Guard(Call call) noexcept {
  if (thrown_ != nullptr) return;
  try {
    call(*this);
  } catch (...) {
    thrown_ = std::current_exception();
  }
}

void Broker::RethrowWhatWasThrown() {
  if (thrown_ != nullptr) std::rethrow_exception(std::exchange(thrown_, nullptr));
}

void Broker::EndWith(BrokerEnd::Cause cause, const std::string& words) {
  if (ended_) return;  // The first cause is the true one.
  ended_ = true;
  end_ = {cause, words};
}

void Broker::CheckDescriptor() {
  if (HasInput(Descriptor())) return;  // The end comes behind it.
  int error = 0;
  socklen_t size = sizeof error;
  char byte = 0;
  if (getsockopt(Descriptor(), SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error != 0) {
    const bool by_the_other_side = IsByTheOtherSide(MOSQ_ERR_ERRNO, error);
    Check(by_the_other_side ? MOSQ_ERR_CONN_LOST : MOSQ_ERR_ERRNO, error);
  } else if (recv(Descriptor(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0) {
    Check(MOSQ_ERR_CONN_LOST, 0);
  }
}

void Broker::Check(int result) {
  const int error = options_.UsesTls() ? 0 : errno;
  const bool has_hung_up = result == MOSQ_ERR_ERRNO && options_.UsesTls() && HasHungUp(Descriptor());
  Check(has_hung_up ? MOSQ_ERR_CONN_LOST : result, error);
}

void Broker::Check(int result, int error) {
  if (result == MOSQ_ERR_SUCCESS || ended_) return;
  const bool cut_off = IsByTheOtherSide(result, error);
  EndWith(cut_off ? BrokerEnd::Cause::kCutOff : BrokerEnd::Cause::kNetwork,
          WordsForCall(result, error, detail_) + (cut_off && !accepted_ ? WhatItMayWant() : ""));
}

// Of us, when it ends a connection instead of accepting it.
const char* Broker::WhatItMayWant() const {
  if (!options_.UsesTls()) return "; it may want TLS (--ca)";
  if (options_.cert.empty()) return "; it may want a certificate of ours (--cert)";
  return "";
}

Broker::Gathering::Gathering(const Broker& broker) : descriptor_(broker.Descriptor()) {
  const int on = 1;
  setsockopt(descriptor_, IPPROTO_TCP, TCP_CORK, &on, sizeof on);
}

Broker::Gathering::~Gathering() {
  const int off = 0;
  setsockopt(descriptor_, IPPROTO_TCP, TCP_CORK, &off, sizeof off);  // The connection may be gone by now: no matter.
}
