// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

#include "support/SystemCallHooks.h"

// The next `size` bytes of a connection; fewer when it ends, or when nothing more comes within the socket's time limit.
inline std::string ReceiveBytes(int socket, std::size_t size) {
  std::string bytes(size, '\0');
  std::size_t received = 0;
  while (received < size) {
    const ssize_t piece = Hooks().recv.Real(socket, &bytes[received], size - received, 0);
    if (piece <= 0) break;
    received += static_cast<std::size_t>(piece);
  }
  bytes.resize(received);
  return bytes;
}
