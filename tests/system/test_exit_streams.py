# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Processes that end while they stream to and from a peer, at every stage of a stream."""

import pathlib
import struct

import pytest

import programs
import wire
from endings import RUNS, WAYS, WAYS_BY_FORK_OR_EXEC, WAYS_WITHOUT_DESTRUCTORS, every_run_ends_well
from programs import SOAK

ALL_WAYS = WAYS + WAYS_WITHOUT_DESTRUCTORS + WAYS_BY_FORK_OR_EXEC
RUNS_AT_A_STAGE = RUNS if SOAK else 4
SYN_SENT = "02"


@pytest.mark.parametrize("way", ALL_WAYS)
def test_streams_may_be_alive_while_the_process_ends(network, make_host, way):
    partner = make_host("--default-log")
    partner.share(b"plant", b"line-4", b"partner")
    partner.set(b"plant", b"state", b"of the partner", b"1")

    every_run_ends_well("system_exit_streams", way, "line-4", lambda run: f"passer-by {run}", "streaming")

    partner.do("flush")  # It is well and answers.


class Stage:
    """A peer of one run, which has the stream between them come to a stage and stay there."""

    def __init__(self, run, stage):
        self.group = group_of(run)
        self._stage = stage
        self._ether = wire.Ether()
        self._open = [self._ether.socket]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for opened in self._open:
            opened.close()

    def reach(self):
        self._stage(self)

    def _keep(self, opened):
        self._open.append(opened)
        return opened

    def _port(self):
        """Waits until the run announces itself."""
        while (announcement := self._ether.receive())[2:] != self.group:
            pass
        return struct.unpack(">H", announcement[:2])[0]

    def _listener_that_is_announced(self):
        self._port()
        listener = self._keep(wire.Listener())
        self._ether.announce(listener.port, self.group)
        return listener

    def connecting(self):
        listener = self._keep(wire.Listener())
        listener.socket.listen(0)
        self._keep(wire.connect(listener.port))  # Takes the one place there is: who comes next gets no answer.
        self._port()
        self._ether.announce(listener.port, self.group)
        assert programs.eventually(lambda: is_connecting(listener.port))

    def waiting_for_the_first_record(self):
        self._keep(self._listener_that_is_announced().accept())

    def waiting_for_the_answer(self):
        stream = self._keep(wire.connect(self._port()))
        assert stream.receive_record() == (b"plant", b"\x09passer-byp")
        return stream

    def waiting_for_a_row_to_send(self):
        stream = self.waiting_for_the_answer()
        listener = self._keep(wire.Listener())
        stream.send(wire.answer(self.group, listener.port))
        self._keep(listener.accept())  # It comes back before it looks for rows.

    def sending_a_snapshot_that_is_not_read(self):
        stream = self.waiting_for_the_answer()
        stream.send(wire.answer(b"elsewhere", 9))
        assert programs.eventually(lambda: stream.unread() > 0)
        assert programs.eventually(stream.stopped_growing)

    def receiving_a_snapshot(self):
        stream = self._keep(self._listener_that_is_announced().accept())
        stream.send(wire.hello(b"plant", b"pump", b"q"))
        assert stream.receive_record()[0] == self.group
        stream.send(wire.record(b"\x05statefirst", b"1") + wire.record(b"\x05statesecond", b"2")[:-1])

    def pausing_before_the_next_attempt(self):
        stream = self._keep(self._listener_that_is_announced().accept())
        stream.half_close()
        assert stream.is_closed()  # From now on it pauses for two seconds.


STAGES = [Stage.connecting, Stage.waiting_for_the_first_record, Stage.waiting_for_the_answer,
          Stage.waiting_for_a_row_to_send, Stage.sending_a_snapshot_that_is_not_read, Stage.receiving_a_snapshot,
          Stage.pausing_before_the_next_attempt]


def group_of(run):
    return b"line %d" % run


def is_connecting(port):
    table = pathlib.Path("/proc/thread-self/net/tcp").read_text(encoding="ascii")
    return any(line.split()[2:4] == [f"0100007F:{port:04X}", SYN_SENT] for line in table.splitlines())


@pytest.mark.parametrize("way", ALL_WAYS)
@pytest.mark.parametrize("stage", STAGES, ids=lambda stage: stage.__name__)
def test_a_stream_may_be_at_any_stage_when_the_process_ends(network, stage, way):
    when = "told, full" if stage is Stage.sending_a_snapshot_that_is_not_read else "told"

    every_run_ends_well("system_exit_streams", way, lambda run: group_of(run).decode(), "p", when,
                        runs=RUNS_AT_A_STAGE, beside=lambda run: Stage(run, stage))
