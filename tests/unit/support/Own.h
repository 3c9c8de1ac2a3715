#pragma once

#include "threads/FileDescriptor.h"

// Hands a descriptor of the test over to the code under test.
inline FileDescriptor Own(int descriptor) {
  const NoFork no_fork;
  return FileDescriptor(no_fork, descriptor);
}
