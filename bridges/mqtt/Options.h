// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <Varnix.h>

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

// What the bridge is told on its command line, in the file that --config names, or in both.
struct Options {
  std::string site;
  std::string group;
  std::vector<std::string> databases;
  std::string host;
  int port = 0;
  unsigned broadcast_address = 0;  // As SetSharingGroup() takes it.
  std::string device;
  std::string process;
  std::vector<std::string> imports;
  bool import_every_site = false;
  std::string prefix = "varnix";
  std::string user;
  std::optional<std::string> password;
  std::string ca;
  std::string cert;
  std::string key;
  bool read_only = false;
  Varnix::LogLevel log_level = Varnix::LogLevel::Notice;

  bool UsesTls() const { return !ca.empty(); }
  bool Imports() const { return import_every_site || !imports.empty(); }
  bool ImportsFrom(const std::string& other_site) const;
};

// Says in its text what is wrong, as the user is told it.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// What was given, checked and complete. An option of the command line counts instead of that of the file.
// Errors: UsageError.
Options ReadOptions(const std::vector<std::string>& arguments);

// What --help prints.
std::string HelpText();

// The name of the database in which the rows of another site arrive. Neither name has an '@' of its own.
std::string ImportedDatabase(const std::string& database, const std::string& site);
// Why this cannot be the name of a site, or of a database that is published; empty if it can.
std::string WhatIsWrongWithName(const std::string& name, std::size_t longest);

constexpr std::size_t kLongestSite = 255;
constexpr std::size_t kLongestDatabase = 4095 - 1 - kLongestSite;  // So that it fits with an '@' and every site.
