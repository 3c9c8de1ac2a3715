# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""The functions of libvarnix_c, as varnix_c.h declares them."""

import ctypes
import errno
import os
from ctypes import POINTER, c_char_p, c_int, c_size_t, c_uint32, c_void_p
from typing import Any, Optional, Tuple, Union

Bytes = Union[str, bytes]

LIBRARY = "libvarnix_c.so.1"

try:
    library = ctypes.CDLL(LIBRARY)
except OSError as error:
    raise ImportError(f"varnix needs {LIBRARY}, which cannot be loaded: {error}. Install Debian's package "
                      "libvarnix-c1, or build Varnix and run 'cmake --install build' and 'ldconfig'; a library in "
                      "another place is found by LD_LIBRARY_PATH") from error


class ChangeStruct(ctypes.Structure):
    """Its strings end in a zero: reading them as C strings is fastest, and right if they hold no other zero."""
    _fields_ = [("key", c_char_p), ("key_size", c_size_t), ("value", c_char_p), ("value_size", c_size_t),
                ("watcher", c_void_p)]


class ChangeAddresses(ctypes.Structure):
    """The same memory, for strings that do."""
    _fields_ = [("key", c_void_p), ("key_size", c_size_t), ("value", c_void_p), ("value_size", c_size_t)]


class SharingStruct(ctypes.Structure):
    _fields_ = [("group", c_void_p), ("group_size", c_size_t), ("device", c_void_p), ("device_size", c_size_t),
                ("process", c_void_p), ("process_size", c_size_t), ("broadcast_address", c_uint32)]


class LogMessageStruct(ctypes.Structure):
    _fields_ = [("level", c_int), ("tag", c_char_p), ("text", c_char_p), ("dropped", c_size_t)]


_STRING = [c_char_p, c_size_t]
_HANDLE = POINTER(c_void_p)


def _function(name: str, *arguments: Any, result: Any = c_int) -> Any:
    function = getattr(library, name)
    function.argtypes = arguments
    function.restype = result
    return function


varnix_version = _function("varnix_version", result=c_char_p)
change_new = _function("varnix_change_new", _HANDLE)
table_new = _function("varnix_table_new", *_STRING, _HANDLE)
shared_table = _function("varnix_shared_table", *_STRING, *_STRING, _HANDLE)
database_table = _function("varnix_database_table", _HANDLE)
table_table = _function("varnix_table_table", *_STRING, _HANDLE)
peer_table = _function("varnix_peer_table", *_STRING, _HANDLE)
table_free = _function("varnix_table_free", c_void_p, result=None)
table_set = _function("varnix_table_set", c_void_p, *_STRING, *_STRING)
table_watch = _function("varnix_table_watch", c_void_p, *_STRING, _HANDLE)
table_watch_all = _function("varnix_table_watch_all", c_void_p, _HANDLE)
local_tables = _function("varnix_local_tables", _HANDLE)
table_list_size = _function("varnix_table_list_size", c_void_p, result=c_size_t)
table_list_get = _function("varnix_table_list_get", c_void_p, c_size_t, _HANDLE, POINTER(c_size_t), _HANDLE)
table_list_free = _function("varnix_table_list_free", c_void_p, result=None)
watcher_take = _function("varnix_watcher_take", c_void_p, c_void_p)
watcher_free = _function("varnix_watcher_free", c_void_p, result=None)
watcher_set_new = _function("varnix_watcher_set_new", _HANDLE, c_size_t, _HANDLE)
watcher_set_wait = _function("varnix_watcher_set_wait", c_void_p, c_int, c_void_p)
watcher_set_descriptor = _function("varnix_watcher_set_descriptor", c_void_p)
watcher_set_free = _function("varnix_watcher_set_free", c_void_p, result=None)
share = _function("varnix_share", *_STRING, POINTER(SharingStruct))
stop_sharing = _function("varnix_stop_sharing", *_STRING)
get_sharing = _function("varnix_get_sharing", *_STRING, POINTER(POINTER(SharingStruct)))
sharing_free = _function("varnix_sharing_free", POINTER(SharingStruct), result=None)
network_changed = _function("varnix_network_changed")
set_log_function = _function("varnix_set_log_function", c_void_p, c_int, c_void_p)
log_buffer_new = _function("varnix_log_buffer_new", c_size_t, _HANDLE)
log_buffer_install = _function("varnix_log_buffer_install", c_void_p, c_int)
log_buffer_take = _function("varnix_log_buffer_take", c_void_p, POINTER(LogMessageStruct))
log_buffer_wait = _function("varnix_log_buffer_wait", c_void_p, result=None)
log_buffer_wake = _function("varnix_log_buffer_wake", c_void_p, result=None)
log_buffer_free = _function("varnix_log_buffer_free", c_void_p, result=None)


def version() -> str:
    text: bytes = varnix_version()
    return text.decode()


def check(result: int) -> None:
    """Raises what a negative result stands for."""
    if result < 0:
        if result == -errno.ENOMEM:
            raise MemoryError
        raise OSError(-result, os.strerror(-result))


def encode(text: Bytes) -> bytes:
    if isinstance(text, bytes):
        return text
    if isinstance(text, str):
        return text.encode("utf-8", "surrogateescape")
    raise TypeError(f"str or bytes expected, not {type(text).__name__}")


def string(text: Bytes) -> Tuple[bytes, int]:
    """The two arguments for a string."""
    data = encode(text)
    return data, len(data)


def name_at(address: Optional[int], size: int) -> str:
    return ctypes.string_at(address or 0, size).decode("utf-8", "surrogateescape")


def make(function: Any, *arguments: Any) -> int:
    """The handle that a function makes."""
    handle = c_void_p()
    check(function(*arguments, ctypes.byref(handle)))
    assert handle.value is not None
    return handle.value


class Handle:
    """Owns one handle of the library."""

    __slots__ = ("_handle", "__weakref__")
    _free: Any  # A class attribute: the module may be gone when the last objects are collected.
    _handle: int

    @classmethod
    def _of(cls, handle: int) -> Any:
        made = cls.__new__(cls)
        made._handle = handle
        return made

    def __del__(self) -> None:
        try:
            handle = self._handle
        except AttributeError:
            return  # It has never been made.
        self._free(handle)

    def __reduce__(self) -> Any:
        raise TypeError(f"a {type(self).__name__} belongs to its process: it can be neither pickled nor copied")
