# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""The reader in Python that docs/protocol.md shows, as it stands there, against the library."""

import pathlib
import re
import subprocess
import sys
import threading

import pytest

import namespaces
import programs
import wire

PAGE = pathlib.Path(__file__).parent.parent.parent / "docs" / "protocol.md"
GROUP = b"line-4"
IDENTITY = b"\x05pressq"


class Reader:
    """The program; the rows that it has printed, and what it says of its errors."""

    def __init__(self, file, group):
        program, = re.findall(r"^```python\n(.*?)^```$", PAGE.read_text(encoding="utf-8"), re.MULTILINE | re.DOTALL)
        file.write_text(program, encoding="utf-8")
        self._process = subprocess.Popen([sys.executable, str(file), group.decode()], text=True,
                                         stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.pid = self._process.pid
        self.rows, self.errors = [], []
        self._changed = threading.Condition()
        self._readers = [threading.Thread(target=self._collect, args=pipe) for pipe in (
            (self._process.stdout, self.rows), (self._process.stderr, self.errors))]
        for reader in self._readers:
            reader.start()

    def _collect(self, pipe, lines):
        for line in pipe:
            with self._changed:
                lines.append(line.rstrip("\n"))
                self._changed.notify_all()

    def prints(self, *row):
        """Waits for the row: database, identity, table, key, value."""
        line = " ".join(map(repr, row))
        with self._changed:
            return self._changed.wait_for(lambda: line in self.rows, programs.DEADLINE)

    def close(self):
        self._process.kill()
        self._process.wait()
        for reader in self._readers:
            reader.join()
        assert self.errors == []


def listeners_on_the_discovery_port(pid):
    """How many sockets of the process's network namespace are bound to it."""
    return pathlib.Path(f"/proc/{pid}/net/udp").read_text(encoding="ascii").count(f":{wire.DISCOVERY_PORT:04X} ")


@pytest.fixture
def make_reader(tmp_path):
    """Readers that hear announcements already; none may end by itself or say a word of an error."""
    made = []

    def make(group=GROUP):
        before = listeners_on_the_discovery_port("self")
        made.append(Reader(tmp_path / f"{len(made)}.py", group))
        assert programs.eventually(lambda: listeners_on_the_discovery_port(made[-1].pid) > before)
        return made[-1]

    yield make
    for reader in made:
        reader.close()


def test_the_program_prints_the_rows_of_every_database_of_a_process(network, make_host, make_reader):
    reader = make_reader()
    host = make_host()
    host.set(b"plant", b"state", b"before", b"1")
    host.set(b"store", b"state", b"before", b"2")

    host.share(b"plant", GROUP, b"press", b"q")
    host.share(b"store", GROUP, b"press", b"q")

    assert reader.prints(b"plant", IDENTITY, b"state", b"before", b"1")
    assert reader.prints(b"store", IDENTITY, b"state", b"before", b"2")
    host.set(b"plant", b"other", b"", b"3")
    assert reader.prints(b"plant", IDENTITY, b"other", b"", b"3")


def test_the_program_reads_fields_of_every_length(ether, make_reader):
    reader = make_reader()
    listener = wire.Listener()
    ether.announce(listener.port, GROUP)
    member = listener.accept()
    member.send(wire.hello(b"plant", b"press", b"q"))
    assert member.receive_record() == (b"", b"\0\0")

    for key, value in ((b"", b"of nothing"), (b"\x05stat", b"claims too much"), (b"\0" b"key", b""),
                       (b"\x05state", b"")):
        member.send(wire.record(key, value))
    member.send(wire.record(b"\x05state" + b"k" * 4089, b"v" * 1048575))

    assert reader.prints(b"plant", IDENTITY, b"", b"", b"of nothing")
    assert reader.prints(b"plant", IDENTITY, b"", b"", b"claims too much")
    assert reader.prints(b"plant", IDENTITY, b"", b"key", b"")
    assert reader.prints(b"plant", IDENTITY, b"state", b"", b"")
    assert reader.prints(b"plant", IDENTITY, b"state", b"k" * 4089, b"v" * 1048575)
    member.close()
    listener.close()


def test_the_program_prints_nothing_of_a_row_that_is_cut_off(ether, make_reader):
    reader = make_reader()
    listener = wire.Listener()
    for cut in (1, 4, 6, 12):
        ether.announce(listener.port, GROUP)
        member = listener.accept()
        member.send(wire.hello(b"plant", b"press", b"q"))
        member.receive_record()
        member.send(wire.record(b"\x05state" b"k", b"value")[:cut])
        member.half_close()
        assert member.is_closed()
        member.close()
    ether.announce(listener.port, GROUP)
    marked = listener.accept()
    marked.send(wire.hello(b"plant", b"press", b"q"))
    marked.receive_record()
    marked.send(wire.record(b"\x05state" b"marker", b"1"))

    assert reader.prints(b"plant", IDENTITY, b"state", b"marker", b"1")
    assert len(reader.rows) == 1
    marked.close()
    listener.close()


def test_the_program_goes_on_after_datagrams_that_are_none_of_ours(ether, make_reader):
    reader = make_reader(group=b"")
    listener = wire.Listener()
    for datagram in (b"", b"\0", b"\0\0", b"\0\1", b"\0\1" + b"x" * 255):
        ether.send(datagram)

    ether.announce(listener.port, b"")
    member = listener.accept()
    member.send(wire.hello(b"plant", b"press", b"q"))
    member.receive_record()
    member.send(wire.record(b"\x05state" b"k", b"v"))

    assert reader.prints(b"plant", IDENTITY, b"state", b"k", b"v")
    member.close()
    listener.close()


def test_the_program_tries_the_place_that_it_has_refused_last_when_the_stream_ends(ether, make_reader):
    reader = make_reader()
    listeners = [wire.Listener() for _ in range(3)]
    streams = []
    for listener in listeners:  # One announcement each; no second one.
        ether.announce(listener.port, GROUP)
        streams.append(listener.accept())
        streams[-1].send(wire.hello(b"plant", b"press", b"q"))
        if listener is listeners[0]:
            assert streams[-1].receive_record() == (b"", b"\0\0")
        else:
            assert streams[-1].is_closed()

    streams[0].close()
    restarted = listeners[-1].accept()
    restarted.send(wire.hello(b"plant", b"press", b"q"))
    restarted.receive_record()
    restarted.send(wire.record(b"\x05state" b"alive", b"1"))

    assert reader.prints(b"plant", IDENTITY, b"state", b"alive", b"1")
    for closing in (*streams, restarted, *listeners):
        closing.close()


def test_the_program_meets_a_member_again_that_has_lost_power(make_namespace, make_host, make_reader):
    desk = make_namespace()

    def cabinet_starts():
        cabinet = make_namespace()
        namespaces.connect(desk, cabinet)
        desk.ip("addr add 10.0.0.1/24 brd + dev eth0")
        cabinet.ip("addr add 10.0.0.2/24 brd + dev eth0")
        return cabinet

    def member_starts(cabinet, start):
        with cabinet:
            host = make_host()
            host.set(b"plant", b"state", b"start", start)
            host.share(b"plant", GROUP, b"press", b"q", "10.0.0.255")
        assert reader.prints(b"plant", IDENTITY, b"state", b"start", start)
        return host

    cabinet = cabinet_starts()
    with desk:
        reader = make_reader()
    host = member_starts(cabinet, b"1")

    desk.ip("link del eth0")  # Nobody is told of what happens now.
    host.kill()

    member_starts(cabinet_starts(), b"2")
