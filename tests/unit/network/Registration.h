// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "network/ActiveESNs.h"

// A registration of the place that the tests receive from.
class Registration {
 public:
  Registration(std::shared_ptr<ActiveESNs> active_esns, std::string uid)
      : registration_(std::move(active_esns), std::move(uid), PeerPlace{0xE0010203, 4660}, refused_) {}

  bool Inserted() const { return registration_.Inserted(); }

 private:
  std::optional<PeerPlace> refused_;
  const EsnRegistration registration_;
};
