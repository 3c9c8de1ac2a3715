// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <gmock/gmock.h>

#include <string>

// For EXPECT_EXIT: all that the process says on standard error before it aborts.
inline testing::Matcher<const std::string&> Says(const std::string& text) {
#if defined(VARNIX_EMULATED)
  return testing::StrEq(text + "qemu: uncaught target signal 6 (Aborted) - core dumped\n");
#else
  return testing::StrEq(text);
#endif
}
