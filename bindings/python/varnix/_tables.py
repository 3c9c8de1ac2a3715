# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Tables, watchers and sets."""

import asyncio
import ctypes
import errno
import math
import os
import select
import time
from typing import Dict, Iterable, Iterator, List, NamedTuple, Optional, Tuple

from . import _library
from ._library import Bytes, ChangeAddresses, ChangeStruct, Handle, check, encode, make, string

# Looked up once: these are called most.
_set = _library.table_set
_wait = _library.watcher_set_wait
_make_change = tuple.__new__


class Watcher(Handle):
    """Reports the changes of one key, or of a whole table. Made by Table.watch and Table.watch_all."""

    __slots__ = ()
    _free = _library.watcher_free

    def __init__(self) -> None:
        raise TypeError("watchers are made by Table.watch and Table.watch_all")

    def changes(self) -> List[Tuple[bytes, bytes]]:
        """Takes the next change: a list of one pair of key and value, or an empty list when nothing is pending."""
        change = _borrow()
        try:
            result = _library.watcher_take(self._handle, change[0])
            rows = [_row(change)] if result == 0 else []
        finally:
            _changes.append(change)
        if result != 0 and result != -errno.EAGAIN:
            check(result)
        return rows


class Change(NamedTuple):
    """A row that has changed, and the watcher that reported it."""
    key: bytes
    value: bytes
    watcher: Watcher


class Table(Handle):
    """A map from key to value whose rows can be set and watched. Made by table(), shared_table() and their like."""

    __slots__ = ()
    _free = _library.table_free

    def __init__(self) -> None:
        raise TypeError("tables are made by varnix.table, varnix.shared_table and their like")

    def set(self, key: Bytes, value: Bytes) -> None:
        """Inserts the row, or replaces its value, and wakes those who wait for it."""
        if type(key) is not bytes:
            key = encode(key)
        if type(value) is not bytes:
            value = encode(value)
        result = _set(self._handle, key, len(key), value, len(value))
        if result:
            check(result)

    def watch(self, key: Bytes) -> Watcher:
        """A watcher of one key. If the key has a row already, its value is the first change."""
        watcher: Watcher = Watcher._of(make(_library.table_watch, self._handle, *string(key)))
        return watcher

    def watch_all(self) -> Watcher:
        """A watcher of every row, those that are there already included."""
        watcher: Watcher = Watcher._of(make(_library.table_watch_all, self._handle))
        return watcher


class WatcherSet(Handle):
    """Waits until one of several watchers has a change.

    Iterating over it, by `for` or `async for`, waits for one change after the other, without end.
    """

    __slots__ = ("_watchers", "_without_pause")
    _free = _library.watcher_set_free

    def __init__(self, watchers: Iterable[Watcher]) -> None:
        members = list(watchers)
        for member in members:
            if not isinstance(member, Watcher):
                raise TypeError(f"Watcher expected, not {type(member).__name__}")
        handles = [member._handle for member in members]
        self._watchers: Dict[int, Watcher] = dict(zip(handles, members))
        self._without_pause = 0  # Changes that `async for` has taken since other tasks had their turn.
        self._handle = make(_library.watcher_set_new, (ctypes.c_void_p * len(handles))(*handles), len(handles))

    def wait(self, timeout: Optional[float] = None) -> Optional[Change]:
        """The next change, or None when none comes within `timeout` seconds. None waits for ever, 0 not at all.

        A signal's handler runs meanwhile, and what it raises ends the wait, such as KeyboardInterrupt. (If it comes
        just when a change has been taken, that change is lost, as with any queue.)

        The first wait that has to sleep makes the descriptor of fileno(), which the set keeps. So it raises OSError
        where none is to be had, and from then on setting a row and taking it cost calls of the kernel.
        """
        change = self._take()
        if change is not None or (timeout is not None and timeout <= 0):
            return change
        deadline = math.inf if timeout is None else time.monotonic() + timeout
        while change is None:
            left = deadline - time.monotonic()
            if left <= 0:
                return self._take()
            poll = select.poll()  # Which lets handlers run, as a sleep inside the library cannot.
            poll.register(self.fileno(), select.POLLIN)  # Each time: the child of a handler that forks has another one.
            poll.poll(math.ceil(min(left, _LONGEST_POLL) * 1000))
            change = self._take()
        return change

    def fileno(self) -> int:
        """A descriptor that is readable while a change is pending: for select, selectors, and other event loops.

        When it is, call wait(0) until it returns None. It belongs to the set. A forked child has to ask again.
        """
        descriptor: int = _library.watcher_set_descriptor(self._handle)
        check(descriptor)
        return descriptor

    def __iter__(self) -> Iterator[Change]:
        return self

    def __next__(self) -> Change:
        change = self.wait()
        assert change is not None
        return change

    def __aiter__(self) -> "WatcherSet":
        return self

    async def __anext__(self) -> Change:
        # Nothing is awaited between taking a change and returning it: so cancelling loses none.
        self._without_pause += 1
        if self._without_pause > _MOST_WITHOUT_PAUSE:
            self._without_pause = 0
            await asyncio.sleep(0)  # A writer without a pause would keep other tasks waiting.
        while True:
            change = self._take()
            if change is not None:
                return change
            self._without_pause = 0
            await self._readable()

    async def _readable(self) -> None:
        # A descriptor of its own for each task that waits: a loop keeps one reader for each number. This one is
        # Python's, not the library's: a child that is forked meanwhile keeps a copy of it.
        descriptor = os.dup(self.fileno())
        try:
            loop = asyncio.get_running_loop()
            readable = loop.create_future()
            loop.add_reader(descriptor, _finish, readable)
            try:
                await readable
            finally:
                loop.remove_reader(descriptor)
        finally:
            os.close(descriptor)

    def _take(self) -> Optional[Change]:
        change = _borrow()
        try:
            result = _wait(self._handle, 0, change[0])
            if result == 0:
                return _make_change(Change, _row(change) + (self._watchers[change[1].watcher],))
        finally:
            _changes.append(change)
        if result != -errno.EAGAIN:
            check(result)
        return None


_MOST_WITHOUT_PAUSE = 100
_LONGEST_POLL = 24 * 60 * 60  # Seconds. Milliseconds of poll() are an int.


def _finish(readable: "asyncio.Future[None]") -> None:
    if not readable.done():
        readable.set_result(None)


def table(name: Bytes) -> Table:
    """A new, empty table of this process alone."""
    made: Table = Table._of(make(_library.table_new, *string(name)))
    return made


def shared_table(database: Bytes, name: Bytes) -> Table:
    """A table of a database. What is set through one object, or by a peer, is seen by the watchers of all."""
    made: Table = Table._of(make(_library.shared_table, *string(database), *string(name)))
    return made


def database_table() -> Table:
    """The table that lists the databases of this process."""
    made: Table = Table._of(make(_library.database_table))
    return made


def table_table(database: Bytes) -> Table:
    """The table that lists the tables of a database."""
    made: Table = Table._of(make(_library.table_table, *string(database)))
    return made


def peer_table(database: Bytes) -> Table:
    """The table of the members that we receive from: b"DEVICE::PROCESS" to b"ADDRESS:PORT", b"" when they have gone."""
    made: Table = Table._of(make(_library.peer_table, *string(database)))
    return made


def local_tables() -> List[Tuple[str, Table]]:
    """The tables of this process that are alive, each with its name."""
    handle = make(_library.local_tables)
    try:
        return [_table_in(handle, index) for index in range(_library.table_list_size(handle))]
    finally:
        _library.table_list_free(handle)


def _table_in(tables: int, index: int) -> Tuple[str, Table]:
    name, size = ctypes.c_void_p(), ctypes.c_size_t()
    made: Table = Table._of(make(_library.table_list_get, tables, index, ctypes.byref(name), ctypes.byref(size)))
    return _library.name_at(name.value, size.value), made


# What the library writes changes into, free to be used: an address, and two views of it. A call takes one and gives it
# back. So neither another thread nor a signal handler or a finalizer, which may run in between, finds the bytes of a
# change that is not its own. As many are kept as have been in use at the same time.
_Borrowed = Tuple[int, ChangeStruct, ChangeAddresses]
_changes: List[_Borrowed] = []


def _borrow() -> _Borrowed:
    try:
        return _changes.pop()
    except IndexError:
        return _new_change()


def _new_change() -> _Borrowed:
    address = make(_library.change_new)
    return address, ChangeStruct.from_address(address), ChangeAddresses.from_address(address)


def _row(change: _Borrowed) -> Tuple[bytes, bytes]:
    _, filled, addresses = change
    key: bytes = filled.key
    value: bytes = filled.value
    if len(key) != filled.key_size:
        key = ctypes.string_at(addresses.key, addresses.key_size)
    if len(value) != filled.value_size:
        value = ctypes.string_at(addresses.value, addresses.value_size)
    return key, value
