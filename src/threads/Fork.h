// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include <atomic>

// How many forks lie between this process and the one that loaded the library. What refers to threads is valid only in
// the process that made it: a forked child has one thread.
inline std::atomic<unsigned> fork_generation{0};
