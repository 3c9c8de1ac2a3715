// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include "Broker.h"
#include "MosquittoCalls.h"

// Connections to a broker that the test drives; nobody listens to what comes from it.
class DrivenBroker final : private BrokerListener {
 public:
  MosquittoCalls calls;
  Options options;
  const Log log{Log::Level::Info};
  Broker broker{options, "name", *this, log};

 private:
  void BrokerIsThere() override {}
  void Acknowledged(int /*message*/, int /*reason*/) override {}
  void Subscribed(const std::vector<int>& /*reasons*/) override {}
  void Arrived(std::string_view /*topic*/, std::string_view /*payload*/, std::string_view /*instance*/) override {}
};
