// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "web/Host.h"

#include <arpa/inet.h>

#include <algorithm>
#include <string>

namespace {

bool IsDigits(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char byte) { return byte >= '0' && byte <= '9'; });
}

// "localhost:8075" without ":8075". Nothing if there is something else behind the name.
std::string_view WithoutPort(std::string_view host) {
  const bool bracketed = !host.empty() && host[0] == '[';
  const std::size_t end = bracketed ? host.find(']') : host.find(':');
  if (end == std::string_view::npos) return bracketed ? std::string_view() : host;
  const std::string_view name = host.substr(0, bracketed ? end + 1 : end);
  const std::string_view port = host.substr(name.size());
  return port.empty() || (port[0] == ':' && IsDigits(port.substr(1))) ? name : std::string_view();
}

bool IsAddress(const std::string& name) {
  in6_addr address{};
  if (name.size() > 2 && name.front() == '[') {
    return inet_pton(AF_INET6, name.substr(1, name.size() - 2).c_str(), &address) == 1;
  }
  return inet_pton(AF_INET, name.c_str(), &address) == 1;
}

std::string LowerCase(std::string_view text) {
  std::string lower(text);
  for (char& byte : lower) byte = byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
  return lower;
}

}  // namespace

bool IsOurHost(std::string_view host, std::string_view own_name) {
  const std::string name = LowerCase(WithoutPort(host)), own = LowerCase(own_name);
  if (name.find('\0') != std::string::npos) return false;
  return IsAddress(name) || name == "localhost" || (!own.empty() && (name == own || name == own + ".local"));
}
