// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <exception>

// What ends a stream early. Private to the network code; they carry nothing but their kind.

class SelfConnect final : public std::exception {
 public:
  const char* what() const noexcept override;
};

class WrongServer final : public std::exception {
 public:
  const char* what() const noexcept override;
};

class AbortRequested final : public std::exception {
 public:
  const char* what() const noexcept override;
};

class AlreadyConnected final : public std::exception {
 public:
  const char* what() const noexcept override;
};
