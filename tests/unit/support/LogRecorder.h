// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "logging/Log.h"

struct LogLine {
  Varnix::LogLevel level;
  std::string tag;
  std::string text;
  std::string format;  // As the library gave it, unexpanded.

  bool operator==(const LogLine& other) const { return level == other.level && tag == other.tag && text == other.text; }
};

// Records what the library logs while it lives, and then restores the default logger.
class LogRecorder {
 public:
  LogRecorder();
  ~LogRecorder();
  LogRecorder(const LogRecorder&) = delete;
  LogRecorder& operator=(const LogRecorder&) = delete;

  std::vector<LogLine> Lines() const;
  // Those of one tag.
  std::vector<LogLine> Lines(const std::string& tag) const;
  std::vector<std::string> Tags() const;
  // The unexpanded formats of the lines whose tags begin so.
  std::vector<std::string> Formats(const std::string& tags) const;
  // Waits until `count` lines of this tag are there; false after ten seconds, which only bound a failing run.
  bool Eventually(const std::string& tag, std::size_t count = 1) const;
  void Clear();

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable recorded_;
  std::vector<LogLine> lines_;
};

// "%p" as the library prints it.
std::string AddressOf(const void* object);
