#pragma once

#include <atomic>

// Set in a child that the host has forked. Only the forking thread lives on in it, and the sockets, pipes and streams
// it has are its parent's: they must be left alone.
inline std::atomic<bool> in_forked_child{false};
