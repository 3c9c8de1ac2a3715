// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// Here, and where a receiver answers a sender.
constexpr std::size_t kPortBytes = 2;

// The datagram by which a member tells its group where it accepts connections.
struct Announcement {
  std::uint16_t port = 0;
  std::string group;
};

std::string Encode(const Announcement& announcement);

// Nothing for a datagram that members drop, too: one below 2 or above 256 bytes.
std::optional<Announcement> DecodeAnnouncement(std::string_view datagram);
