# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Becomes a program that finds the system up for so long: at_uptime.py MILLISECONDS PROGRAM [ARGUMENT...]

The process stays the same, so that whoever started it has the program's own id. Needs Linux 5.6, and root or root of a
user namespace.
"""

import ctypes
import os
import sys
import time

CLONE_NEWTIME = 0x80
MILLISECOND, SECOND = 10**6, 10**9  # In nanoseconds.


def offset_of_the_namespace():
    """What the monotonic clock of this namespace is ahead of the system's, in nanoseconds."""
    with open("/proc/self/timens_offsets", encoding="ascii") as offsets:
        seconds, nanoseconds = next(line.split()[1:] for line in offsets if line.startswith("monotonic"))
    return int(seconds) * SECOND + int(nanoseconds)


def enter_a_time_namespace(uptime):
    libc = ctypes.CDLL(None, use_errno=True)
    of_the_system = time.monotonic_ns() - offset_of_the_namespace()
    if libc.unshare(CLONE_NEWTIME) != 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))
    with open("/proc/self/timens_offsets", "w", encoding="ascii") as offsets:
        offsets.write("monotonic %d %d\n" % divmod(uptime * MILLISECOND - of_the_system, SECOND))
    # So far it is the namespace of the children alone.
    made = os.open("/proc/self/ns/time_for_children", os.O_RDONLY | os.O_CLOEXEC)
    if libc.setns(made, CLONE_NEWTIME) != 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))


if __name__ == "__main__":
    try:
        enter_a_time_namespace(int(sys.argv[1]))
    except OSError as not_allowed:
        sys.exit(f"needs time namespaces: {not_allowed}")
    os.execvp(sys.argv[2], sys.argv[2:])
