// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "Log.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace {

const char* NameOf(Log::Level level) {
  switch (level) {
    case Log::Level::Warning:
      return "warning";
    case Log::Level::Notice:
      return "notice";
    case Log::Level::Info:
      return "info";
    case Log::Level::Debug:
      return "debug";
    default:
      return "error";
  }
}

// systemd names the file that leads to the journal. Standard error may be another one: the variable is inherited.
bool StandardErrorIsTheJournal() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing in this process sets variables.
  const char* const journal = std::getenv("JOURNAL_STREAM");
  struct stat file {};
  if (journal == nullptr || fstat(STDERR_FILENO, &file) != 0) return false;
  return journal == std::to_string(file.st_dev) + ':' + std::to_string(file.st_ino);
}

// systemd reads the level from the line, and adds the time.
std::string JournalHead(Log::Level level) { return '<' + std::to_string(static_cast<int>(level)) + '>'; }

std::string Head(Log::Level level) {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  localtime_r(&now, &parts);
  char time[32];
  std::strftime(time, sizeof time, "%Y-%m-%d %H:%M:%S ", &parts);
  return std::string(time) + NameOf(level) + ": ";
}

}  // namespace

std::string Printable(std::string_view bytes) {
  constexpr std::size_t kMost = 200;
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const char c : bytes) {
    if (text.size() >= kMost) return text + "...";
    if (c >= ' ' && c <= '~' && c != '\\') {
      text += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      text += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 0xF]};
    }
  }
  return text;
}

Log::Log(Level most) : most_(most), to_journal_(StandardErrorIsTheJournal()) {}

void Log::TakeThoseOfTheLibrary() const {
  Varnix::SetLoggingFunction([log = *this](Level level, const char* tag, const char* format, std::va_list arguments) {
    if (!log.Writes(level)) return;
    char text[1024];
    std::vsnprintf(text, sizeof text, format, arguments);
    log.Write(level, std::string(tag) + ' ' + Printable(text));
  });
}

void Log::Write(Level level, std::string_view text) const {
  if (!Writes(level)) return;
  const std::string line = (to_journal_ ? JournalHead(level) : Head(level)) + std::string(text) + '\n';
  if (write(STDERR_FILENO, line.data(), line.size()) < 0) return;  // Nobody is left to tell.
}

void PacedWarnings::Write(std::string_view text, Time now) {
  Tick(now);
  if (written_ == 0) period_end_ = now + kPeriod;
  if (written_ < kAtOnce) {
    ++written_;
    log_.Warning(text);
  } else {
    ++left_out_;
  }
}

void PacedWarnings::Tick(Time now) {
  if (written_ == 0 || now < period_end_) return;
  if (left_out_ > 0) log_.Warning(std::to_string(left_out_) + " more " + what_);
  written_ = 0;
  left_out_ = 0;
}
