// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <Varnix.h>

#include <cstdio>
#include <memory>

#include "Errors.h"
#include "LogBuffer.h"

struct varnix_log_buffer {
  std::shared_ptr<LogBuffer> buffer;
};

int varnix_set_log_function(varnix_log_function function, int max_level, void* user) {
  return ResultOf([&] {
    if (function == nullptr) {
      Varnix::SetLoggingFunction(nullptr);
      return 0;
    }
    Varnix::SetLoggingFunction([=](Varnix::LogLevel level, const char* tag, const char* format, va_list arguments) {
      if (static_cast<int>(level) > max_level) return;
      char text[1024];
      std::vsnprintf(text, sizeof text, format, arguments);
      function(static_cast<int>(level), tag, text, user);
    });
    return 0;
  });
}

int varnix_log_buffer_new(size_t capacity, varnix_log_buffer** buffer) {
  if (capacity + 1 < 2) return -EINVAL;
  return ResultOf([&] {
    *buffer = new varnix_log_buffer{std::make_shared<LogBuffer>(capacity)};
    return 0;
  });
}

int varnix_log_buffer_install(varnix_log_buffer* buffer, int max_level) {
  return ResultOf([&] {
    Varnix::SetLoggingFunction([max_level, ring = buffer->buffer](Varnix::LogLevel level, const char* tag,
                                                                  const char* format, va_list arguments) {
      if (static_cast<int>(level) <= max_level) ring->Write(static_cast<int>(level), tag, format, arguments);
    });
    return 0;
  });
}

int varnix_log_buffer_take(varnix_log_buffer* buffer, varnix_log_message* message) {
  return buffer->buffer->Take(message) ? 0 : -EAGAIN;
}

void varnix_log_buffer_wait(varnix_log_buffer* buffer) { buffer->buffer->Wait(); }

void varnix_log_buffer_wake(varnix_log_buffer* buffer) { buffer->buffer->Wake(); }

void varnix_log_buffer_free(varnix_log_buffer* buffer) { delete buffer; }
