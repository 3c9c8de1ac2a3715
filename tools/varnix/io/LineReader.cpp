// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "io/LineReader.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace {

constexpr std::size_t kReadAtOnce = 1 << 16;
// The largest row needs less, even if every byte of it is written as \u00XX. A longer line is the end, so that no input
// takes all memory.
constexpr std::size_t kMostLine = 16 << 20;

}  // namespace

std::optional<std::string_view> LineReader::Next() {
  const std::size_t end = text_.find('\n', std::max(taken_, searched_));
  if (end == std::string::npos) {
    searched_ = text_.size();
    return std::nullopt;
  }
  const std::string_view line = std::string_view(text_).substr(taken_, end - taken_);
  taken_ = end + 1;
  ++line_number_;
  return line;
}

// Waits for more once every line that is there has been taken.
pollfd LineReader::Awaited() const {
  const bool wanted = !at_end_ && searched_ == text_.size();
  return {wanted ? descriptor_ : -1, POLLIN, 0};
}

void LineReader::OnReady(short) {
  text_.erase(0, taken_);
  taken_ = 0;
  searched_ = text_.size();
  text_.resize(searched_ + kReadAtOnce);
  const ssize_t size = read(descriptor_, text_.data() + searched_, kReadAtOnce);
  text_.resize(searched_ + static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
  if (size < 0 && (errno == EINTR || errno == EAGAIN)) return;
  if (size < 0) error_ = errno;
  too_long_ = text_.size() > kMostLine && text_.find('\n', searched_) == std::string::npos;
  at_end_ = size <= 0 || too_long_;
}
