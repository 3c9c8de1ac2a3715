# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Key/value tables that the processes of a device, and the devices of one local network, share.

    table = varnix.shared_table("plant", "status")
    varnix.share("plant", group="line-4", device="press", process="py")
    table.set("speed", "42")
    for change in varnix.WatcherSet([table.watch_all()]):
        print(change.key, change.value)

The header of the C++ library, Varnix.h, says what each function does; each stands here under its name in small letters.

Strings: keys, values and names are bytes, or str, which stands for its bytes in UTF-8. Rows come back as bytes, names
  as str. Bytes of a name that are no UTF-8 become surrogates, as by os.fsdecode; passed in again they are the same.
Threads: everything may be used from any thread. Calls that take long leave the interpreter to other threads.
Ownership: objects are freed when they are collected, in any order. They can be neither pickled nor copied.
Errors: OSError with the errno, MemoryError, and TypeError where something is neither str nor bytes.
Fork: a forked child has copies, as multiprocessing makes them, and may share under an identity of its own.
Logging: see start_logging.
"""

from ._logging import start_logging, stop_logging
from ._library import version as _version
from ._sharing import Sharing, network_changed, share, sharing, stop_sharing
from ._tables import (Change, Table, Watcher, WatcherSet, database_table, local_tables, peer_table, shared_table, table,
                      table_table)

__version__ = _version()

__all__ = [
    "Change", "Sharing", "Table", "Watcher", "WatcherSet", "database_table", "local_tables", "network_changed",
    "peer_table", "share", "shared_table", "sharing", "start_logging", "stop_logging", "stop_sharing", "table",
    "table_table",
]
