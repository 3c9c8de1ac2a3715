// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

// An object that is never destroyed, and needs no memory of its own: for what threads that outlive main() still use.
template <class T>
union NeverDestroyed {
  constexpr NeverDestroyed() : value() {}
  ~NeverDestroyed() {}

  T value;
};
