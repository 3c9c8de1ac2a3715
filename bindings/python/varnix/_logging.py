# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""What the library logs, handed on to Python's logging.

The library logs inside most calls, under its locks, and on threads of its own. No Python code can run there: it would
wait for the interpreter, which may be waiting for that lock. So the library writes its messages into a ring in memory
and never waits, and a thread of the interpreter empties it.
"""

import atexit
import logging
import os
import sys
import threading
from typing import Optional

import ctypes

from . import _library
from ._library import Handle, LogMessageStruct, check, make

_LEVELS = [logging.CRITICAL] * 3 + [logging.ERROR, logging.WARNING, logging.INFO, logging.INFO, logging.DEBUG]


class _Ring(Handle):
    """The ring, and the thread that empties it."""

    __slots__ = ("_thread", "_ended", "capacity", "max_level")
    _free = _library.log_buffer_free

    def __init__(self, capacity: int, max_level: int) -> None:
        self.capacity = capacity
        self.max_level = max_level
        self._handle = make(_library.log_buffer_new, capacity)
        self._ended = False
        self._thread = threading.Thread(target=self._run, name="varnix-log", daemon=True)
        self._thread.start()
        try:
            check(_library.log_buffer_install(self._handle, max_level))
        except BaseException:
            self.end()
            raise

    def end(self) -> None:
        """Hands on what is left. Another log function must be in its place already."""
        self._ended = True
        _library.log_buffer_wake(self._handle)
        if self._thread is not threading.current_thread():
            self._thread.join()

    def _run(self) -> None:
        while not self._ended:
            _library.log_buffer_wait(self._handle)
            self._empty()
        self._empty()  # What came between the last look and the end.

    def _empty(self) -> None:
        message = LogMessageStruct()
        while _library.log_buffer_take(self._handle, ctypes.byref(message)) == 0:
            try:
                _hand_on(message)
            except Exception:  # Of a filter or a handler of the user's: the next message is handed on all the same.
                sys.excepthook(*sys.exc_info())


def _hand_on(message: LogMessageStruct) -> None:
    if message.dropped:
        logging.getLogger("varnix").warning("%d messages were dropped, for want of room", message.dropped)
    if not message.tag:
        return  # It only tells of these.
    logger = logging.getLogger("varnix." + message.tag.decode("latin-1"))
    logger.log(_LEVELS[message.level], "%s", message.text.decode("utf-8", "replace"))


_lock = threading.Lock()
_ring: Optional[_Ring] = None


def start_logging(level: int = logging.INFO, capacity: int = 256) -> None:
    """Hands what the library logs, from `level` (of Python's logging) on, to the loggers "varnix.TAG".

    The tag names the place in the library, such as "tblsvr.dscv.poll". Until this is called, the library prints errors
    to standard error and drops all else.

    capacity: so many messages, of a kilobyte each, are kept until a thread of the interpreter hands them on. When there
    is no room, new ones are dropped and counted.
    """
    max_level = max((number for number, known in enumerate(_LEVELS) if known >= level), default=-1)
    global _ring
    with _lock:
        old, _ring = _ring, _Ring(capacity, max_level)
    if old is not None:
        old.end()


def stop_logging() -> None:
    """Silences the library, errors included, and hands on what it has logged before."""
    global _ring
    with _lock:
        check(_library.set_log_function(None, 0, None))
        old, _ring = _ring, None
    if old is not None:
        old.end()


def _end_at_exit() -> None:
    if _ring is not None:
        stop_logging()


def _begin_in_child() -> None:
    """The child has a copy of the ring, and no thread: what is in it belongs to the parent."""
    global _ring, _lock
    _lock = threading.Lock()
    if _ring is not None:
        _ring = _Ring(_ring.capacity, _ring.max_level)


atexit.register(_end_at_exit)
os.register_at_fork(after_in_child=_begin_in_child)
