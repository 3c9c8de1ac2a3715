# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Sets one row, and prints what every member of the group has set or sets: print_table.py NAME VALUE

Run it in two terminals, with different names; Ctrl-C ends it.
"""

import logging
import sys

import varnix


def main() -> None:
    if len(sys.argv) != 3:
        sys.exit("usage: print_table.py NAME VALUE")
    name, value = sys.argv[1:]

    logging.basicConfig()
    varnix.start_logging(logging.WARNING)

    table = varnix.shared_table("plant", "status")
    varnix.share("plant", group="line-4", device="press", process=name, broadcast="127.255.255.255")
    changes = varnix.WatcherSet([table.watch_all()])
    table.set(name, value)
    try:
        for change in changes:
            print(change.key.decode(), "is", change.value.decode(), flush=True)
    except KeyboardInterrupt:
        varnix.stop_sharing("plant")


if __name__ == "__main__":
    main()
