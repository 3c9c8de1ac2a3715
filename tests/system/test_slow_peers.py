"""What a writer is spared of peers that are slow, or have stopped."""

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
ROUNDS = 60 if SOAK else 4
MEBIBYTE = 1 << 20


class TrickleReader:
    """A peer that takes 2,000 bytes a second."""

    def __init__(self, port):
        self._stream = wire.Connection(socket.socket())
        self._stream.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        self._stream.socket.connect(("127.0.0.1", port))
        self._stream.receive_record()
        self._stream.send(wire.answer(b"elsewhere", 9))
        self._ends = threading.Event()
        self._thread = threading.Thread(target=self._read)
        self._thread.start()

    def _read(self):
        while not self._ends.wait(0.1):
            self._stream.receive(200)

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
    host.watch(b"plant", b"marker")
    host.share(b"plant", GROUP, name)
    return host


def test_peers_that_are_slow_or_stopped_cost_the_writer_and_the_others_nothing(writer, make_host):
    healthy = [join(make_host, b"one"), join(make_host, b"two")]
    stopped = join(make_host, b"stopped")
    for host in (*healthy, stopped):
        writer.set(b"plant", b"marker", b"m", b"start")
        assert host.gets_row(b"plant", b"marker", b"m", b"start")
    trickle = TrickleReader(writer.port)
    os.kill(stopped.pid, signal.SIGSTOP)
    memory, longest_set, latest = [], 0.0, []

    for round_ in range(ROUNDS):
        for row in range(ROWS):
            start = time.monotonic()
            writer.set(b"plant", b"state", b"%d" % row, b"%d " % round_ + b"v" * 1000)
            longest_set = max(longest_set, time.monotonic() - start)
        start = time.monotonic()
        writer.set(b"plant", b"marker", b"m", b"%d" % round_)
        for host in healthy:
            assert host.gets_row(b"plant", b"marker", b"m", b"%d" % round_)
        latest.append(time.monotonic() - start)
        writer.do("trim")
        memory.append(programs.private_memory(writer.pid))

    programs.figure("slow peers: bytes after the first round", memory[0], "and at most", max(memory), "- longest Set",
                    round(longest_set, 4), "s - healthy peers see a row after at most", round(max(latest), 4), "s")
    if programs.MEMORY_IS_ITS_OWN:
        assert max(memory) <= memory[0] + MEBIBYTE
    assert longest_set < 10  # A stopped peer would have held it for ever.

    os.kill(stopped.pid, signal.SIGCONT)
    stopped.watch(b"plant", b"state")
    expected = {b"%d" % row: b"%d " % (ROUNDS - 1) + b"v" * 1000 for row in range(ROWS)}
    assert programs.eventually(lambda: stopped.table(b"plant", b"state") == expected)
    trickle.close()
