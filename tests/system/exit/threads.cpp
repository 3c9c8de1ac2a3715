// Ends while other threads call every exported function, again and again.
#include <atomic>
#include <thread>

#include "Leave.h"
#include "Statics.h"

namespace {

constexpr int kThreads = 4;

std::atomic<int>& Warm() {
  static std::atomic<int>& warm = *new std::atomic<int>(0);  // The threads outlive main and all static objects.
  return warm;
}

[[noreturn]] void CallForEver(int number) {
  const std::string database = "database " + std::to_string(number);
  CallEverything(database);
  for (++Warm();;) CallEverything(database);
}

}  // namespace

int main(int, char** argv) {
  for (int number = 0; number < kThreads; ++number) std::thread(CallForEver, number).detach();
  while (Warm() < kThreads) std::this_thread::yield();
  return Leave(argv[1]);
}
