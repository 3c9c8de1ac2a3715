#pragma once

#include <atomic>

// How many forks lie between this process and the one that loaded the library. What refers to threads belongs to the
// process in which it was made: a forked child has only one of them.
inline std::atomic<unsigned> fork_generation{0};
