// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Writes one object as one line. Text that is not UTF-8 gets a name that ends in "64", and is in base64.
class JsonObject {
 public:
  explicit JsonObject(std::string& out);

  JsonObject& Text(std::string_view name, std::string_view text);
  JsonObject& Number(std::string_view name, std::uint64_t number);
  void End();

 private:
  void Name(std::string_view name, std::string_view suffix = "");

  std::string& out_;
};
