// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

// The program of somebody who uses the library: it knows nothing but the installed header.
#include <Varnix.h>

#include <cstdio>

int main() {
  const std::shared_ptr<Varnix::Table> table = Varnix::MakeSharedTable("plant", "status");
  const std::shared_ptr<Varnix::Watcher> watcher = table->Watch("temperature");
  table->Set(Varnix::Row("temperature", "81"));
  for (const Varnix::Row& change : watcher->GetChanges()) {
    std::printf("%s is %s\n", change.first.c_str(), change.second.c_str());
  }
}
