# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Tables, watchers and sets of one process."""

import copy
import errno
import gc
import os
import pickle
import resource
import select
import signal
import subprocess
import sys
import threading

import pytest

import programs
import varnix

EVERY_BYTE = bytes(range(256))


@pytest.mark.parametrize("key, value", [
    (b"", b""), (EVERY_BYTE, EVERY_BYTE[::-1]), (b"\0", b"a\0b\0"), (b"k" * 5000, b"v" * 3_000_000)],
    ids=["empty", "every byte", "zeros", "long"])
def test_bytes_come_back_as_they_were_set(table, key, value):
    all_rows, one = table.watch_all(), table.watch(key)
    changes = varnix.WatcherSet([one])

    table.set(key, value)

    assert all_rows.changes() == [(key, value)]
    assert changes.wait(0) == (key, value, one)
    assert all_rows.changes() == []
    assert changes.wait(0) is None


def test_a_str_is_its_bytes_in_utf_8(table):
    watcher = table.watch("größe")

    table.set("größe", "10 µm")

    assert watcher.changes() == [("größe".encode(), "10 µm".encode())]


@pytest.mark.parametrize("wrong", [5, None, bytearray(b"x"), ["x"]])
def test_anything_else_is_a_type_error(table, wrong):
    for call in (lambda: table.set(wrong, b""), lambda: table.set(b"", wrong), lambda: table.watch(wrong),
                 lambda: varnix.table(wrong), lambda: varnix.shared_table("d", wrong),
                 lambda: varnix.WatcherSet([table])):
        with pytest.raises(TypeError):
            call()


def test_a_change_names_its_watcher(table):
    other = varnix.table("other")
    left, right = table.watch_all(), other.watch_all()
    changes = varnix.WatcherSet([left, right, left])

    other.set("k", "v")
    change = changes.wait()
    table.set("k", "w")

    assert change == varnix.Change(b"k", b"v", right) and change.watcher is right
    assert changes.wait().watcher is left


def test_a_wait_gives_up_in_time(table):
    changes = varnix.WatcherSet([table.watch_all()])

    assert [changes.wait(timeout) for timeout in (0, 0.01, -1)] == [None] * 3
    assert varnix.WatcherSet([]).wait(0.01) is None


@pytest.mark.parametrize("timeout", [None, 1e300, float("inf"), 60])
def test_a_wait_ends_with_the_row_of_another_thread(table, timeout):
    changes = varnix.WatcherSet([table.watch_all()])
    writer = threading.Timer(0.05, table.set, ("k", "v"))
    writer.start()

    assert changes.wait(timeout)[:2] == (b"k", b"v")
    writer.join()


def test_iterating_waits_for_one_change_after_the_other(table):
    changes = varnix.WatcherSet([table.watch_all()])
    for key in "abc":
        table.set(key, key)

    assert [change.key for _, change in zip(range(3), changes)] == [b"a", b"b", b"c"]


def test_the_descriptor_is_readable_while_a_change_is_pending(table):
    changes = varnix.WatcherSet([table.watch_all()])

    def is_readable():
        return select.select([changes], [], [], 0)[0] == [changes]

    assert not is_readable()
    table.set("k", "v")
    assert is_readable()
    changes.wait()
    assert not is_readable()


def test_a_wait_for_which_no_descriptor_is_to_be_had_is_an_error_and_the_next_works(table):
    changes = varnix.WatcherSet([table.watch_all()])
    before = resource.getrlimit(resource.RLIMIT_NOFILE)

    resource.setrlimit(resource.RLIMIT_NOFILE, (0, before[1]))
    try:
        with pytest.raises(OSError) as raised:
            changes.wait(programs.DEADLINE)
    finally:
        resource.setrlimit(resource.RLIMIT_NOFILE, before)
    assert raised.value.errno == errno.EMFILE
    assert changes.wait(0.001) is None  # It had to sleep, and so to make the descriptor.
    table.set("k", "v")
    assert select.select([changes], [], [], programs.DEADLINE)[0] == [changes]
    assert changes.wait()[:2] == (b"k", b"v")


def test_a_hundred_thousand_rows_come_in_their_order(table):
    changes = varnix.WatcherSet([table.watch_all()])
    rows = [(str(i).encode(), str(-i).encode()) for i in range(100_000)]
    writer = threading.Thread(target=lambda: [table.set(*row) for row in rows])
    writer.start()

    assert [change[:2] for _, change in zip(rows, changes)] == rows
    writer.join()


def test_threads_that_share_a_set_get_each_change_once(table):
    changes = varnix.WatcherSet([table.watch_all()])
    seen = [[] for _ in range(4)]

    def take(mine):
        while (change := changes.wait()).key != b"end":
            mine.append(change.key)
        table.set("end", change.value + b".")  # For the next one.

    threads = [threading.Thread(target=take, args=(mine,)) for mine in seen]
    for thread in threads:
        thread.start()
    for i in range(2000):
        table.set(str(i), "v")
    table.set("end", "")
    for thread in threads:
        thread.join()

    assert sorted(int(key) for mine in seen for key in mine) == list(range(2000))


def test_a_wait_leaves_the_interpreter_to_other_threads_and_ends_with_a_signal(table):
    changes = varnix.WatcherSet([table.watch_all()])
    stop = threading.Timer(0.05, os.kill, (os.getpid(), signal.SIGINT))

    with pytest.raises(KeyboardInterrupt):
        stop.start()  # In here: on a busy machine the signal may come before the wait.
        changes.wait()
    stop.join()


def test_a_handler_that_returns_does_not_end_a_wait(table):
    changes = varnix.WatcherSet([table.watch_all()])
    before = signal.signal(signal.SIGUSR1, lambda *_: table.set("from", "the handler"))
    sender = threading.Timer(0.05, os.kill, (os.getpid(), signal.SIGUSR1))
    sender.start()

    assert changes.wait().value == b"the handler"
    sender.join()
    signal.signal(signal.SIGUSR1, before)


def test_a_wait_goes_on_in_the_child_of_a_handler_that_forks_and_sleeps_there(table, monkeypatch):
    polls, children = [], []
    real_poll = select.poll

    class CountedPoll:
        def __init__(self):
            self._poll = real_poll()
            self.register = self._poll.register

        def poll(self, timeout):
            polls.append(timeout)
            return self._poll.poll(timeout)

    monkeypatch.setattr(select, "poll", CountedPoll)
    changes = varnix.WatcherSet([table.watch_all()])
    before = signal.signal(signal.SIGALRM, lambda *_: children.append(os.fork()))
    signal.setitimer(signal.ITIMER_REAL, 0.05)

    taken = changes.wait(0.5)

    if children == [0]:
        os._exit(min(len(polls), 100) if taken is None else 101)
    signal.signal(signal.SIGALRM, before)
    assert taken is None
    assert os.waitstatus_to_exitcode(os.waitpid(children[0], 0)[1]) <= 3


def test_objects_are_freed_in_any_order():
    def names():
        return [name for name, _ in varnix.local_tables() if name == "freed"]

    table = varnix.table("freed")
    watcher = table.watch_all()
    changes = varnix.WatcherSet([watcher])
    table.set("k", "v")
    assert names() == ["freed"]
    del table, watcher
    gc.collect()
    assert changes.wait(0)[:2] == (b"k", b"v")
    assert names() == ["freed"]
    del changes
    gc.collect()

    assert names() == []


def test_names_of_any_bytes_come_back_as_names_that_mean_the_same_bytes():
    table = varnix.table(EVERY_BYTE)

    name, = [name for name, _ in varnix.local_tables() if len(name) == 256]
    again = varnix.table(name)

    assert name.encode("utf-8", "surrogateescape") == EVERY_BYTE
    assert [known for known, _ in varnix.local_tables()].count(name) == 2
    del table, again


def test_objects_can_be_neither_made_by_hand_nor_pickled_nor_copied(table):
    for made in (table, table.watch_all(), varnix.WatcherSet([])):
        for attempt in (pickle.dumps, copy.copy, copy.deepcopy):
            with pytest.raises(TypeError, match="belongs to its process"):
                attempt(made)
    for kind in (varnix.Table, varnix.Watcher):
        with pytest.raises(TypeError, match="made by"):
            kind()


def run(code, **variables):
    return subprocess.run([sys.executable, "-c", code], env={**os.environ, **variables}, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, timeout=programs.DEADLINE)


def test_an_interpreter_ends_while_others_write_wait_and_log():
    done = run("""if True:
        import logging, threading, varnix
        logging.basicConfig(level=logging.CRITICAL)
        varnix.start_logging(logging.DEBUG)
        table = varnix.table("t")
        changes = varnix.WatcherSet([table.watch_all()])
        def write():
            number = 0
            while True:
                number += 1
                table.set("k", str(number))
        def read():
            for change in changes:
                pass
        for target in (write, write, read, read):
            threading.Thread(target=target, daemon=True).start()
        for _, change in zip(range(10), varnix.WatcherSet([table.watch_all()])):
            pass
        print("the end")
        """)

    assert (done.returncode, done.stdout) == (0, "the end\n")


def test_without_the_library_the_import_says_what_to_install(tmp_path):
    (tmp_path / "libvarnix_c.so.1").touch()  # It hides one that may be installed, and cannot be loaded.
    done = run("import varnix", LD_LIBRARY_PATH=str(tmp_path))

    assert done.returncode != 0
    last = done.stdout.splitlines()[-1]
    assert last.startswith("ImportError: varnix needs libvarnix_c.so.1, which cannot be loaded: ")
    assert "Install Debian's package libvarnix-c1" in last


def test_the_version_is_that_of_the_library():
    header = open(os.environ["VARNIX_INCLUDE"] + "/Varnix.h", encoding="ascii").read()
    project = open(os.environ["VARNIX_SOURCE"] + "/bindings/python/pyproject.toml", encoding="ascii").read()

    assert [header.count(f"#define VARNIX_VERSION_{part} {number}\n") for part, number in zip(
        ("MAJOR", "MINOR", "PATCH"), varnix.__version__.split("."))] == [1, 1, 1]
    assert f'\nversion = "{varnix.__version__}"\n' in project
