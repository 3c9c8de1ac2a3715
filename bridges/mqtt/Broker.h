// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <mosquitto.h>

#include <chrono>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Log.h"
#include "Options.h"

// Is told what comes from the broker, in Connect() and Serve(). What it throws leaves those.
class BrokerListener {
 public:
  virtual ~BrokerListener() = default;

  virtual void BrokerIsThere() = 0;
  // `reason` is one of MQTT 5: from 128 on the broker has refused what was published.
  virtual void Acknowledged(int message, int reason) = 0;
  // One reason for each filter of Subscribe(), in their order.
  virtual void Subscribed(const std::vector<int>& reasons) = 0;
  // `instance` is that of a State.
  virtual void Arrived(std::string_view topic, std::string_view payload, std::string_view instance) = 0;
};

// How a connection has ended.
struct BrokerEnd {
  enum class Cause {
    kNetwork,    // Not made, or lost: nothing that we have sent is the cause.
    kCutOff,     // Ended by the other side, perhaps for something that we have sent.
    kTakenOver,  // Ended by the broker because another client has our name.
  };
  Cause cause = Cause::kNetwork;
  std::string words;
};

// One connection to the broker at a time. Each is a new client of libmosquitto: nothing is kept from one to the next.
//
// Threads: that of the owner alone. Signals come in while Connect() blocks.
class Broker {
 public:
  // A message with a property that says who has sent it; none if that is empty.
  struct State {
    std::string topic;
    std::string payload;
    std::string instance;
  };

  Broker(const Options& options, std::string client_name, BrokerListener& listener, const Log& log);
  ~Broker();
  Broker(const Broker&) = delete;
  Broker& operator=(const Broker&) = delete;

  // Blocks for ten seconds at most, and for the lookup of the name. Whether a connection has begun: it has not been
  // accepted by the broker before BrokerIsThere().
  bool Connect(const std::optional<State>& will);
  // Whether there is a connection. If there is none, End() tells why.
  bool HasConnection() const { return client_ != nullptr && !ended_; }
  const BrokerEnd& End() const { return end_; }

  int Descriptor() const { return mosquitto_socket(client_); }
  bool WantsToWrite() const { return mosquitto_want_write(client_); }
  // Reads and writes what can be, and does what is due; at least once a second.
  void Serve(bool readable);

  enum class Outcome { kSent, kRefused, kConnectionEnded };
  // A retained message of QoS 1. `message` gets its number, or `why` the reason why it cannot be sent.
  Outcome Publish(const std::string& topic, std::string_view payload, int& message, std::string& why);
  // The number of the message; none if the connection has ended.
  std::optional<int> PublishState(const State& state);
  void Subscribe(const std::vector<std::string>& filters);
  // Takes leave: no will.
  void Disconnect();
  // Ends a connection whose broker does not answer.
  void GiveUp() { EndWith(BrokerEnd::Cause::kNetwork, "it does not answer"); }

  // While it lives, what is sent gathers in large segments.
  class Gathering {
   public:
    explicit Gathering(const Broker& broker);
    ~Gathering();
    Gathering(const Gathering&) = delete;
    Gathering& operator=(const Gathering&) = delete;

   private:
    const int descriptor_;
  };

 private:
  using Clock = std::chrono::steady_clock;

  void MakeClient(const std::optional<State>& will);
  void SetCallbacks();
  void ListenToTheLibrary(bool listen);
  void SetWill(const State& will);
  void SetTls();
  int ConnectClient();
  void OnConnect(int reason, const mosquitto_property* properties);
  void OnDisconnect(int reason);
  void OnLog(int level, const char* text);
  // Makes a call for libmosquitto, through which nothing that is thrown may pass: RethrowWhatWasThrown() does so later.
  template <class Call>
  void Guard(Call call) noexcept;
  void EndWith(BrokerEnd::Cause cause, const std::string& words);
  // Notes the end of the connection, if its descriptor has nothing else for us. libmosquitto would notice it, too, but
  // with TLS it cannot tell why.
  void CheckDescriptor();
  // Notes the end of the connection, if `result` tells of one. Reads errno, so it comes right after the call. With TLS
  // errno tells nothing: libmosquitto ends the stream before it returns. What is sent leaves the descriptor, though.
  void Check(int result);
  void Check(int result, int error);
  const char* WhatItMayWant() const;
  void RethrowWhatWasThrown();

  const Options& options_;
  const std::string client_name_;
  BrokerListener& listener_;
  const Log& log_;
  mosquitto* client_ = nullptr;
  bool accepted_ = false;
  bool ended_ = false;
  BrokerEnd end_;
  std::string detail_;  // The last error of which libmosquitto has told.
  Clock::time_point answer_is_due_;
  Clock::time_point next_chores_;
  std::exception_ptr thrown_;  // In a call for libmosquitto.
};
