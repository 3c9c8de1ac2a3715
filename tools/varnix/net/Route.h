// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cstdint>
#include <string>

// The way that announcements to an address take.
struct Route {
  int error = 0;               // The error number where there is none.
  bool to_everybody = false;   // Whether the address is a broadcast address.
  std::uint32_t source = 0;    // Our own address on that way.
  std::string interface_name;  // Empty if it is not known.
};

// The address is in host byte order.
Route FindRoute(std::uint32_t address);
