// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "support/LogRecorder.h"

#include <algorithm>
#include <cstdio>

namespace {

std::string Expand(const char* format, va_list args) {
  va_list measured;
  va_copy(measured, args);
  const int size = std::vsnprintf(nullptr, 0, format, measured);
  va_end(measured);
  std::string text(static_cast<std::size_t>(size) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), format, args);
  text.pop_back();
  return text;
}

}  // namespace

LogRecorder::LogRecorder() {
  SetLogHook([this](Varnix::LogLevel level, const char* tag, const char* format, va_list args) {
    const std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back({level, tag, Expand(format, args), format});
    recorded_.notify_all();
  });
}

LogRecorder::~LogRecorder() { SetLogHook(DefaultLogger); }

std::vector<LogLine> LogRecorder::Lines() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

std::vector<LogLine> LogRecorder::Lines(const std::string& tag) const {
  std::vector<LogLine> chosen = Lines();
  chosen.erase(std::remove_if(chosen.begin(), chosen.end(), [&](const LogLine& line) { return line.tag != tag; }),
               chosen.end());
  return chosen;
}

std::vector<std::string> LogRecorder::Tags() const {
  std::vector<std::string> tags;
  for (const LogLine& line : Lines()) tags.push_back(line.tag);
  return tags;
}

std::vector<std::string> LogRecorder::Formats(const std::string& tags) const {
  std::vector<std::string> formats;
  for (const LogLine& line : Lines()) {
    if (line.tag.rfind(tags, 0) == 0) formats.push_back(line.format);
  }
  return formats;
}

bool LogRecorder::Eventually(const std::string& tag, std::size_t count) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return recorded_.wait_until(lock, std::chrono::system_clock::now() + std::chrono::seconds(10), [&] {
    return static_cast<std::size_t>(std::count_if(lines_.begin(), lines_.end(),
                                                  [&](const LogLine& line) { return line.tag == tag; })) >= count;
  });
}

void LogRecorder::Clear() {
  const std::lock_guard<std::mutex> lock(mutex_);
  lines_.clear();
}

std::string AddressOf(const void* object) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", object);
  return text;
}
