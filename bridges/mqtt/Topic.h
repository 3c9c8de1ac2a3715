// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

// The bytes with everything but letters, digits and - . _ ~ as %XX, in upper case.
std::string EncodePart(std::string_view bytes);
// The bytes of an encoded part. Strict: nothing for what EncodePart() never gives, so that no row has two topics.
std::optional<std::string> DecodePart(std::string_view part);

// What a topic names: a row of a table of a database of a site. The parts are still encoded, and point into the topic.
struct RowTopic {
  std::string_view site;
  std::string_view database;
  std::string_view table;
  std::string_view key;
};

// The topics of one prefix.
//
//   PREFIX/SITE/DATABASE/TABLE/KEY   a row
//   PREFIX/SITE/$state               "1" while the bridge of the site is connected, else "0"
class Topics {
 public:
  static constexpr std::size_t kLongest = 65'535;      // Of MQTT.
  static constexpr std::size_t kMostLevels = 200;      // Mosquitto cuts a client off for more.
  static constexpr std::size_t kLongestPrefix = 1024;  // With it, every row that the library can share fits a topic.

  explicit Topics(std::string prefix) : prefix_(std::move(prefix)) {}

  // Why this cannot be a prefix; empty if it can.
  static std::string WhatIsWrong(const std::string& prefix);

  std::string State(std::string_view site) const;
  // Up to the key: what is before each row of the table.
  std::string Table(std::string_view site, std::string_view database, std::string_view table) const;
  // The subscription for all rows of a database, of one site or of every site.
  std::string RowsOfSite(std::string_view site, std::string_view database) const;
  std::string RowsOfEverySite(std::string_view database) const;
  // As a client, a bridge has a name that says whose it is.
  std::string ClientOf(std::string_view site) const;

  // The four parts behind the prefix; nothing if the topic has another prefix, or more or fewer parts.
  std::optional<RowTopic> Split(std::string_view topic) const;
  // What is behind the prefix and the site: how a row of ours is named in messages.
  static std::string_view WithinSite(std::string_view row_topic);

 private:
  const std::string prefix_;
};
