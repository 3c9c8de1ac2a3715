#include <pthread.h>

#include "logging/Log.h"
#include "tables/LocalTableRegistry.h"
#include "tables/TableLock.h"
#include "threads/FileDescriptor.h"
#include "threads/Fork.h"

// A forked child destroys its copies of the host's tables and watchers when it exits. So fork() happens only while this
// thread holds the locks that this takes: the child would wait for ever for one that a thread of its parent has locked.

namespace {

void LockAll() VARNIX_NO_LOCK_ANALYSIS {
  if (!IsInLogHook()) {  // A hook that forks runs under some of these locks, and gives them back in both processes.
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
}

void UnlockAllInChild() {
  in_forked_child = true;
  FileDescriptor::CloseAllInChild();
  UnlockAll();
}

[[maybe_unused]] const int registered = pthread_atfork(LockAll, UnlockAll, UnlockAllInChild);

}  // namespace
