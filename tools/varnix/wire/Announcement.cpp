// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "wire/Announcement.h"

namespace {

constexpr std::size_t kMostBytesOfAnnouncement = 256;

}  // namespace

std::string Encode(const Announcement& announcement) {
  std::string datagram;
  datagram += static_cast<char>(announcement.port >> 8);
  datagram += static_cast<char>(announcement.port & 0xFF);
  return datagram + announcement.group;
}

std::optional<Announcement> DecodeAnnouncement(std::string_view datagram) {
  if (datagram.size() < kPortBytes || datagram.size() > kMostBytesOfAnnouncement) return std::nullopt;
  const auto high = static_cast<unsigned char>(datagram[0]), low = static_cast<unsigned char>(datagram[1]);
  return Announcement{static_cast<std::uint16_t>(high << 8 | low), std::string(datagram.substr(kPortBytes))};
}
