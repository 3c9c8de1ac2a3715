// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Loads a library that uses ours, and unloads it while the threads of ours go on, again and again.
#include <dlfcn.h>

#include "Leave.h"

int main(int, char** argv) {
  for (int round = 0; round < 3; ++round) {
    void* plugin = dlopen(argv[2], RTLD_NOW);
    if (plugin == nullptr) return 1;
    reinterpret_cast<void (*)()>(dlsym(plugin, "FillStaticsOfTheLibrary"))();
    dlclose(plugin);
    if (dlopen(argv[2], RTLD_NOW | RTLD_NOLOAD) != nullptr) return 2;
    if (dlopen("libvarnix.so.1", RTLD_NOW | RTLD_NOLOAD) == nullptr) return 3;
  }
  return Leave(argv[1]);
}
