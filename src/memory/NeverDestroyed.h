// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

// Holds a static object that is never destroyed, because threads that outlive main() still use it. The object needs no
// memory from the heap.
template <class T>
union NeverDestroyed {
  constexpr NeverDestroyed() : value() {}
  ~NeverDestroyed() {}

  T value;
};
