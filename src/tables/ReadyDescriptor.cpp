// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include "tables/ReadyDescriptor.h"

#include <sys/eventfd.h>

namespace {

FileDescriptor MakeEventDescriptor(bool readable) {
  const NoFork no_fork;
  return FileDescriptor(no_fork, eventfd(readable ? 1 : 0, EFD_CLOEXEC | EFD_NONBLOCK));
}

}  // namespace

int LocalTable::ReadyDescriptor::Get() {
  if (!descriptor_.IsOpen()) descriptor_ = MakeEventDescriptor(set_.IsReady());
  return descriptor_.Get();
}

void LocalTable::ReadyDescriptor::WatcherChanged(const std::shared_ptr<LWatcher>& watcher, bool empty) {
  const bool was_ready = set_.IsReady();
  set_.WatcherChanged(watcher, empty);
  if (set_.IsReady() != was_ready && descriptor_.IsOpen()) Show(!was_ready);
}

void LocalTable::ReadyDescriptor::Show(bool ready) const {
  eventfd_t count = 1;
  if (ready) {
    eventfd_write(descriptor_.Get(), count);
  } else {
    eventfd_read(descriptor_.Get(), &count);
  }
}
