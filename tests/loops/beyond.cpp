// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Compiles the code that docs/beyond-one-network.md shows, which stands inside a function.
#include <Varnix.h>

std::shared_ptr<Varnix::Table> ShareWhatTheBridgeFills();

std::shared_ptr<Varnix::Table> ShareWhatTheBridgeFills() {
#include "beyond.h"
  return remote;
}
