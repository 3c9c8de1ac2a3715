// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// A program that grows as it is told to by lines on standard input, for measure.py to see what that costs. Each line is
// answered by one: the bytes of heap in use, and the bytes of address space that are reserved.
#include <Varnix.h>
#include <arpa/inet.h>
#include <malloc.h>
#include <sys/mman.h>

#include <cinttypes>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

constexpr std::size_t kKeySize = 16;
constexpr std::size_t kValueSize = 32;

void SetRows(Varnix::Table& table, unsigned count) {
  for (unsigned i = 0; i < count; ++i) {
    const std::string number = std::to_string(i);
    const std::string key = std::string(kKeySize - number.size(), 'k') + number;
    table.Set({key, std::string(kValueSize, 'v')});
  }
}

void AwaitRow(Varnix::Table& table, const std::string& key) {
  const std::shared_ptr<Varnix::WatcherSet> set = Varnix::MakeWatcherSet({table.Watch(key)});
  set->Wait();
}

// Read from the inside, because from the outside an emulator's own memory would be counted.
std::uint64_t ReservedBytes() {
  char line[512];
  std::uint64_t bytes = 0;
  std::FILE* maps = std::fopen("/proc/self/maps", "r");
  if (maps == nullptr) std::abort();
  while (std::fgets(line, sizeof line, maps) != nullptr) {
    std::uint64_t begin = 0, end = 0;
    if (std::strstr(line, "[vsyscall]") == nullptr && std::sscanf(line, "%" SCNx64 "-%" SCNx64, &begin, &end) == 2) {
      bytes += end - begin;
    }
  }
  std::fclose(maps);
  return bytes;
}

// Leaves so much less to the process: an emulator gives it all that 32 bits can address, a kernel does not.
void TakeSpace(std::size_t size_mib) {
  if (mmap(nullptr, size_mib << 20, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) == MAP_FAILED) std::abort();
}

void Report() {
  const struct mallinfo2 heap = mallinfo2();
  std::printf("%zu %" PRIu64 "\n", heap.uordblks + heap.hblkhd, ReservedBytes());
  std::fflush(stdout);
}

}  // namespace

int main() {
  std::shared_ptr<Varnix::Table> table;
  char command[16];
  unsigned count = 0;
  Report();
  while (std::scanf("%15s %u", command, &count) == 2) {
    const std::string what = command;
    if (what == "share") Varnix::SetSharingGroup("plant", "line-4", "probe", "p", inet_addr("127.255.255.255"));
    if (what == "local") table = Varnix::MakeTable("status");
    if (what == "shared") table = Varnix::MakeSharedTable("plant", "status");
    if (what == "set") SetRows(*table, count);
    if (what == "take") TakeSpace(count);
    if (what == "await") AwaitRow(*table, "last");
    Report();
  }
}
