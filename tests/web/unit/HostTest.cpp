// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// The names under which the page is known.
#include <gtest/gtest.h>

#include "web/Host.h"

namespace {

TEST(Host, AddressesLocalhostAndTheNameOfThisHostAreOurs) {
  for (const char* const host : {"127.0.0.1", "10.0.0.7:8075", "[::1]", "[fe80::1]:80", "localhost", "LOCALHOST:1",
                                 "press", "Press:8075", "press.local", "press.local:80"}) {
    EXPECT_TRUE(IsOurHost(host, "press")) << host;
  }
}

TEST(Host, EveryOtherNameIsNot) {
  for (const char* const host :
       {"", ":80", "pump", "press.evil", "evil.press", "press.local.evil", "localhost.", "127.0.0.1.evil", "1.2.3",
        "[::1", "::1", "[press]", "press:80:80", "press:x", "press ", "evil@press", "127.0.0.1/"}) {
    EXPECT_FALSE(IsOurHost(host, "press")) << host;
  }
}

TEST(Host, WithoutANameOfThisHostNoEmptyNameIsOurs) {
  for (const char* const host : {"", ":80", ".local", ".local:80"}) EXPECT_FALSE(IsOurHost(host, "")) << host;
}

TEST(Host, WhatFollowsAZeroByteIsNotOverlooked) {
  EXPECT_FALSE(IsOurHost(std::string_view("127.0.0.1\0.evil", 15), "press"));
}

}  // namespace
