// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#include <pthread.h>

#include "databases/DatabaseCache.h"
#include "logging/Log.h"
#include "network/PeerThreads.h"
#include "tables/LocalTableRegistry.h"
#include "tables/TableLock.h"
#include "threads/FileDescriptor.h"
#include "threads/Fork.h"

// A forked child has one thread, and copies of everything. It uses its copies of the tables like any process. The
// servers and their streams belong to the parent: the child closes its copies of their descriptors and forgets them. No
// lock that the child takes may be held by another thread of the parent at that moment: the child would wait for it for
// ever. Locks within a server are not among them.

namespace {

void LockAll() VARNIX_NO_LOCK_ANALYSIS {
  // A log hook runs under some of these locks. It may fork only to start a program.
  if (!IsInLogHook()) {
    DatabaseCache::LockAll();
    PeerThreads::Lock();
    table_lock.lock();
    LocalTableRegistry::Lock();
    LockLog();
  }
  FileDescriptor::Lock();
}

void UnlockAll() VARNIX_NO_LOCK_ANALYSIS {
  FileDescriptor::Unlock();
  if (IsInLogHook()) return;
  UnlockLog();
  LocalTableRegistry::Unlock();
  table_lock.unlock();
  PeerThreads::Unlock();
  DatabaseCache::UnlockAll();
}

void ForgetTheParent() {
  ++fork_generation;
  FileDescriptor::CloseAllInChild();
  if (!IsInLogHook()) {
    DatabaseCache::ForgetServersInChild();
    PeerThreads::ForgetAllInChild();
  }
  UnlockAll();
  if (!IsInLogHook()) DatabaseCache::EndPeersInChild();
}

[[maybe_unused]] const int kRegistered = pthread_atfork(LockAll, UnlockAll, ForgetTheParent);

}  // namespace
