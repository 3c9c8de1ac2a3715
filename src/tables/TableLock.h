// SPDX-FileCopyrightText: 2026 the Varnix authors
// SPDX-License-Identifier: BSD-3-Clause

#pragma once

#include "threads/Mutex.h"

// The one lock of all tables, watchers and watcher sets of the process. Taken before the registry lock of local tables
// and before the log lock.
inline Mutex table_lock;
