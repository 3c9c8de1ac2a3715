# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""The sharing of databases."""

import ctypes
import errno
import socket
import sys
from typing import NamedTuple, Optional

from . import _library
from ._library import Bytes, SharingStruct, check, encode, name_at, string


class Sharing(NamedTuple):
    """How a database is shared."""
    group: str
    device: str
    process: str
    broadcast: str


def share(database: Bytes, group: Bytes, device: Bytes, process: Bytes, broadcast: str = "255.255.255.255") -> None:
    """Shares the database with the members of `group`, from now until stop_sharing(), the next call for this database,
    or the end of the process. `device` and `process` together must be different for each member.

    broadcast: where announcements are sent. 127.255.255.255 stays on this device.
    """
    buffers = [encode(text) for text in (group, device, process)]  # They have to outlive the call.
    settings = SharingStruct()
    for name, data in zip(("group", "device", "process"), buffers):
        setattr(settings, name, ctypes.cast(ctypes.c_char_p(data), ctypes.c_void_p))
        setattr(settings, name + "_size", len(data))
    settings.broadcast_address = int.from_bytes(socket.inet_pton(socket.AF_INET, broadcast), sys.byteorder)
    check(_library.share(*string(database), ctypes.byref(settings)))


def stop_sharing(database: Bytes) -> None:
    """Ends the sharing of the database. Does nothing if it is not shared."""
    check(_library.stop_sharing(*string(database)))


def sharing(database: Bytes) -> Optional[Sharing]:
    """How the database is shared; None when it is not."""
    settings = ctypes.POINTER(SharingStruct)()
    result = _library.get_sharing(*string(database), ctypes.byref(settings))
    if result == -errno.ENOENT:
        return None
    check(result)
    try:
        found = settings.contents
        address = found.broadcast_address.to_bytes(4, sys.byteorder)
        return Sharing(name_at(found.group, found.group_size), name_at(found.device, found.device_size),
                       name_at(found.process, found.process_size), socket.inet_ntop(socket.AF_INET, address))
    finally:
        _library.sharing_free(settings)


def network_changed() -> None:
    """Tells every shared database that the network has changed: they announce themselves at once."""
    check(_library.network_changed())
