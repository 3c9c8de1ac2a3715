// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "LogBuffer.h"

#include <Varnix.h>

#include <cstdio>

LogBuffer::LogBuffer(std::size_t capacity) : slots_count_(capacity + 1), slots_(new Slot[capacity + 1]) {
  sem_init(&news_, 0, 0);
}

void LogBuffer::Write(int level, const char* tag, const char* format, va_list arguments) {
  const std::size_t end = end_;
  if (After(end) == begin_) {
    ++dropped_;
    Wake();  // The reader may have taken the last message by now: it would never hear of this one.
    return;
  }
  Slot& slot = slots_[end];
  slot.level = level;
  std::snprintf(slot.tag, sizeof slot.tag, "%s", tag);
  std::vsnprintf(slot.text, sizeof slot.text, format, arguments);
  end_ = After(end);
  Wake();
}

bool LogBuffer::Take(varnix_log_message* message) {
  if (lent_) {
    lent_ = false;  // First: a child that is forked in between takes the message once more, and none too many.
    begin_ = After(begin_);
  }
  const bool empty = begin_ == end_;
  const std::size_t dropped = dropped_.exchange(0);
  if (empty) {
    if (dropped > 0) *message = {static_cast<int>(Varnix::LogLevel::Warning), "", "", dropped};
    return dropped > 0;
  }
  lent_ = true;
  const Slot& slot = slots_[begin_];
  *message = {slot.level, slot.tag, slot.text, dropped};
  return true;
}

void LogBuffer::Wait() {
  // What is written from now on wakes again; what was written before is taken after this.
  if (woken_.exchange(false)) {
    // In a child that was forked just then, a post may be missing or left over: none is counted on.
    while (sem_trywait(&news_) == 0) continue;
    return;
  }
  sem_wait(&news_);
  woken_ = false;
}

void LogBuffer::Wake() {
  if (!woken_.exchange(true)) sem_post(&news_);
}
