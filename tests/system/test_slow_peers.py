# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""What a writer is spared of peers that are slow, or have stopped."""

import contextlib
import os
import signal
import socket
import threading
import time

import pytest

import programs
import wire
from programs import EMULATOR, SOAK

GROUP = b"line-4"
ROWS = 100 if EMULATOR else 1_000
ROWS_PER_COUNTER = 50
STOPPED_FOR = 60 if SOAK else 3  # Seconds.
TRICKLE = 2_000  # Bytes a second.
MEBIBYTE = 1 << 20


class TrickleReader:
    """A peer that takes few bytes a second."""

    def __init__(self, port):
        self._stream = wire.Connection(socket.socket())
        self._stream.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        self._stream.socket.connect(("127.0.0.1", port))
        self._stream.receive_record()
        self._stream.send(wire.answer(b"elsewhere", 9))
        self._ends = threading.Event()
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._taken, self._start = 0, time.monotonic()
        self._thread.start()

    def _read(self):
        while not self._ends.wait(0.1):
            self._taken += len(self._stream.receive(TRICKLE // 10))

    def rate(self):
        return self._taken / (time.monotonic() - self._start)

    def close(self):
        self._ends.set()
        self._thread.join()
        self._stream.close()


@pytest.fixture
def writer(ether, make_host):
    host = make_host("--default-log")
    host.share(b"plant", GROUP, b"writer")
    host.port = ether.port_of_next_announcement()
    return host


def join(make_host, name):
    host = make_host("--default-log")
    host.watch(b"plant", b"counters")
    host.share(b"plant", GROUP, name)
    return host


@contextlib.contextmanager
def stopping(host):
    os.kill(host.pid, signal.SIGSTOP)
    try:
        yield
    finally:
        os.kill(host.pid, signal.SIGCONT)


class Writer:
    """Overwrites rows of 1 kB again and again, and counters among them."""

    def __init__(self, host):
        self._host = host
        self.rounds = 0
        self.longest_set = 0.0

    def _set(self, table, key, value):
        start = time.monotonic()
        self._host.set(b"plant", table, key, value)
        self.longest_set = max(self.longest_set, time.monotonic() - start)

    def write_a_round(self):
        self.rounds += 1
        for row in range(ROWS):
            self._set(b"state", b"%d" % row, self.row_value())
            if row % ROWS_PER_COUNTER == 0:
                self._set(b"counters", b"%d" % row, b"%d" % self.rounds)

    def row_value(self):
        return b"%06d " % self.rounds + b"v" * 1000  # Of one length, so that the memory stays comparable.

    def mark_its_end(self):
        self._set(b"counters", b"m", b"%d" % self.rounds)


def test_peers_that_are_slow_or_stopped_cost_the_writer_and_the_others_nothing(writer, make_host):
    healthy = [join(make_host, b"one"), join(make_host, b"two")]
    stopped = join(make_host, b"stopped")
    writer.set(b"plant", b"counters", b"start", b"1")
    for host in (*healthy, stopped):
        assert host.gets_row(b"plant", b"counters", b"start", b"1")
    trickle = TrickleReader(writer.port)
    writing, memory, latest = Writer(writer), [], []
    with stopping(stopped):
        stopped_at = time.monotonic()
        while time.monotonic() < stopped_at + STOPPED_FOR:
            writing.write_a_round()
            start = time.monotonic()
            writing.mark_its_end()
            for host in healthy:
                assert host.gets_row(b"plant", b"counters", b"m", b"%d" % writing.rounds)
            latest.append(time.monotonic() - start)
            writer.do("trim")
            memory.append(programs.private_memory(writer.pid))
        rate = trickle.rate()

    programs.figure("slow peers:", writing.rounds, "rounds in", round(time.monotonic() - stopped_at, 1),
                    "s - bytes after the first", memory[0], "and at most", max(memory), "- longest Set",
                    round(writing.longest_set, 4), "s - healthy peers see a row after at most", round(max(latest), 4),
                    "s - the slow one takes", round(rate), "bytes a second")
    if programs.NATIVE:
        assert max(memory) <= memory[0] + MEBIBYTE
        assert max(latest) <= 2
        assert writing.longest_set < 1
        assert 0 < rate <= TRICKLE
    assert writing.longest_set < 10  # A stopped peer would have held it for ever.

    stopped.watch(b"plant", b"state")
    expected = {b"%d" % row: writing.row_value() for row in range(ROWS)}
    assert programs.eventually(lambda: stopped.table(b"plant", b"state") == expected)
    trickle.close()
    for host in (*healthy, stopped):
        assert host.gets_row(b"plant", b"counters", b"m", b"%d" % writing.rounds)
        assert programs.steps_back(host.rows(b"plant", b"counters")) == []
    numbers = [(key, value.split()[0]) for key, value in stopped.rows(b"plant", b"state")]
    assert programs.steps_back(numbers) == []
