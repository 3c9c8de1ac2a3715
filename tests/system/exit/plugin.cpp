// Loads a library that uses ours, and unloads it while the threads of ours go on.
#include <dlfcn.h>

#include "Leave.h"

int main(int, char** argv) {
  void* plugin = dlopen(argv[2], RTLD_NOW);
  if (plugin == nullptr) return 1;
  reinterpret_cast<void (*)()>(dlsym(plugin, "FillStaticsOfTheLibrary"))();
  dlclose(plugin);
  if (dlopen(argv[2], RTLD_NOW | RTLD_NOLOAD) != nullptr) return 2;
  return Leave(argv[1]);
}
