// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include "threads/FileDescriptor.h"

// Hands a descriptor of the test over to the code under test.
inline FileDescriptor Own(int descriptor) {
  const NoFork no_fork;
  return FileDescriptor(no_fork, descriptor);
}
