// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <cerrno>
#include <cstddef>
#include <new>
#include <stdexcept>
#include <string>
#include <system_error>

// The negative errno for the exception that is being handled.
inline int ErrorOfException() {
  try {
    throw;
  } catch (const std::bad_alloc&) {
    return -ENOMEM;
  } catch (const std::system_error& error) {
    return error.code().value() > 0 ? -error.code().value() : -EIO;
  } catch (const std::logic_error&) {  // Of std::string: NULL with a length, or a length that cannot be.
    return -EINVAL;
  } catch (...) {
    return -EIO;
  }
}

// The result of a step that returns 0 or a negative errno, or throws.
template <typename Step>
int ResultOf(Step step) noexcept {
  try {
    return step();
  } catch (...) {
    return ErrorOfException();
  }
}

inline std::string Bytes(const char* data, std::size_t size) { return {data, size}; }
