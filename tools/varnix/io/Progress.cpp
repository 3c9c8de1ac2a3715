// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "io/Progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

#include "text/Printable.h"

namespace {

bool IsSmart() {
  const char* const kind = std::getenv("TERM");
  return kind != nullptr && std::string_view(kind) != "dumb";
}

// What fits into one line of the terminal. The last column stays free: some terminals begin a new line behind it.
std::string Fitting(const std::string& text, const std::string& end) {
  winsize size{};
  const bool known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  if (!known) return text + end;
  const std::size_t most = size.ws_col - 1U;
  const std::string kept = Cut(end, most);
  return Cut(text, most - Columns(kept)) + kept;
}

// Past stdio: nothing is left to write when the process ends in another way.
void Write(const std::string& text) {
  if (write(STDERR_FILENO, text.data(), text.size()) < 0) return;  // Nobody to tell.
}

}  // namespace

Progress::Progress() : terminal_(isatty(STDERR_FILENO) != 0 && IsSmart()) {}

void Progress::Show(const std::string& text, const std::string& end) {
  const TimePoint now = Clock::now();
  if (!terminal_ || (dirty_ && now < shown_ + kPace / 2)) return;  // However much happens meanwhile.
  shown_ = now;
  dirty_ = true;
  Write("\r\x1b[K" + Fitting(text, end));
}

void Progress::Clear() {
  if (dirty_) Write("\r\x1b[K");
  dirty_ = false;
}

void Progress::Note(const std::string& text) {
  Clear();
  Write("varnix: " + text + "\n");
}
