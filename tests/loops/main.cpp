// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// Runs the code that docs/event-loops.md shows: its Run() sees the rows that another thread sets, and leaves no
// descriptor open.
#include SNIPPET

#include <cstdio>
#include <filesystem>
#include <iterator>
#include <string>
#include <thread>

static long CountDescriptors() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

int main(int argc, char** argv) {
#ifdef QT_CORE_LIB
  QCoreApplication application(argc, argv);
#endif
  static_cast<void>(argc), static_cast<void>(argv);
  const auto table = Varnix::MakeTable("table");
  table->Set({"before", "1"});
  std::thread writer([&] {
    for (int i = 1; i <= 100; ++i) table->Set({"speed", std::to_string(i)});
    table->Set({"end", "of rows"});
  });
  Run(table);
  writer.join();
  const long before = CountDescriptors();  // A library keeps some from the first time on.
  Run(table);
  std::printf("%ld descriptors are left\n", CountDescriptors() - before);
}
