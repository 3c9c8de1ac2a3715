// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <fcntl.h>
#include <poll.h>

inline bool IsOpen(int descriptor) { return fcntl(descriptor, F_GETFD) >= 0; }

// The events after waiting so many milliseconds for something to be read, -1 for as long as it takes; 0 for none.
inline short AwaitInput(int descriptor, int milliseconds) {
  pollfd entry = {descriptor, POLLIN, 0};
  poll(&entry, 1, milliseconds);
  return entry.revents;
}

inline bool IsReadable(int descriptor) { return AwaitInput(descriptor, 0) == POLLIN; }
