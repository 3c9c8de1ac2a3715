// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "text/Time.h"

#include <chrono>
#include <cstdio>
#include <ctime>

namespace {

constexpr std::int64_t kSecond = 1'000'000;
constexpr std::size_t kSecondsSize = 19;  // Of "2026-11-22T04:17:29".

// "123456Z" or "123Z" behind the point.
std::optional<std::int64_t> ParseFraction(std::string_view text) {
  if (text.size() < 2 || text.size() > 7 || text.back() != 'Z') return std::nullopt;
  std::int64_t fraction = 0, unit = kSecond;
  for (const char digit : text.substr(0, text.size() - 1)) {
    if (digit < '0' || digit > '9') return std::nullopt;
    unit /= 10;
    fraction += (digit - '0') * unit;
  }
  return fraction;
}

std::optional<std::int64_t> ParseSeconds(const std::string& text) {
  std::tm parts{};
  const char* const end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
  if (end == nullptr || *end != '\0') return std::nullopt;
  return static_cast<std::int64_t>(timegm(&parts)) * kSecond;
}

}  // namespace

std::int64_t TimeNow() {
  using std::chrono::system_clock;
  return std::chrono::duration_cast<std::chrono::microseconds>(system_clock::now().time_since_epoch()).count();
}

std::string TimeText(std::int64_t time_us) {
  const std::time_t seconds = static_cast<std::time_t>(time_us / kSecond);
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  char text[80];
  const std::size_t size = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  std::snprintf(text + size, sizeof text - size, ".%06dZ", static_cast<int>(time_us % kSecond));
  return text;
}

std::optional<std::int64_t> ParseTime(std::string_view text) {
  if (text.size() <= kSecondsSize) return std::nullopt;
  const auto seconds = ParseSeconds(std::string(text.substr(0, kSecondsSize)));
  const std::string_view rest = text.substr(kSecondsSize);
  const auto fraction = rest == "Z" ? 0 : rest[0] == '.' ? ParseFraction(rest.substr(1)) : std::nullopt;
  if (!seconds || !fraction) return std::nullopt;
  return *seconds + *fraction;
}
