# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""A peer that comes back before anybody knows that it was gone."""

import time

import pytest

import namespaces
import programs
import wire
from programs import EMULATOR, SOAK

GROUP = b"line-4"
BACKLOG = 5_000 if EMULATOR else 100_000
RUNS = 50 if SOAK else 3
PROCESSES = 200 if SOAK else 20
SECONDS = 5  # Within which a peer that has restarted is met.
SILENCE = 4  # Seconds after which a silent peer is given up.


def serve(listener, device):
    stream = listener.accept()
    stream.send(wire.hello(b"plant", device, b"q"))
    return stream


def were_met_in_time(what, times, seconds=SECONDS):
    programs.figure(f"{what}: met after at most", round(max(times), 3), "s in", len(times), "restarts")
    if programs.NATIVE:
        assert max(times) <= seconds


def test_a_peer_that_restarts_while_its_old_stream_is_drained_is_met_at_once(ether, make_host):
    host = make_host("--slow-log")
    host.watch(b"plant", b"state")
    host.share(b"plant", GROUP, b"press")
    backlog = b"".join(wire.record(b"\x07backlog%06d" % number, b"v") for number in range(BACKLOG))
    times = []
    for run in range(RUNS):
        device = b"pump %d" % run
        old = wire.Listener()
        ether.announce(old.port, GROUP)
        draining = serve(old, device)
        assert draining.receive_record()[0] == GROUP
        draining.send(backlog)
        draining.half_close()
        old.close()

        restarted = wire.Listener()
        ether.announce(restarted.port, GROUP)  # Once; the next one would be a minute away.
        assert serve(restarted, device).is_closed(), "the old stream is still drained"
        assert draining.is_closed()
        drained = time.monotonic()  # The old stream is long: until here nobody may be met under its name.
        stream = serve(restarted, device)
        assert stream.receive_record()[0] == GROUP
        stream.send(wire.record(b"\x05state" b"alive", b"%d" % run))

        assert host.gets_row(b"plant", b"state", b"alive", b"%d" % run)
        times.append(time.monotonic() - drained)
        for closing in (stream, draining, restarted):
            closing.close()
    were_met_in_time("restart while the old stream is drained, from the end of that", times)


def test_a_process_that_restarts_with_the_same_identity_is_seen_again_each_time(network, make_host):
    observer = make_host()
    observer.watch(b"plant", b"state")
    observer.share(b"plant", GROUP, b"observer")
    times = []
    for run in range(PROCESSES):
        writer = make_host("--default-log")
        restarted = time.monotonic()  # The old stream is short: its end counts.
        writer.share(b"plant", GROUP, b"writer")
        writer.set(b"plant", b"state", b"run", b"%d" % run)
        assert observer.gets_row(b"plant", b"state", b"run", b"%d" % run)
        times.append(time.monotonic() - restarted)
        writer.kill()
    were_met_in_time("restart after a kill, from the restart", times)


class Cabinet:
    """A place on a bridge that can be cut off silently."""

    def __init__(self, make_namespace, bridge, number):
        self.address = f"10.1.1.{number}"
        self.place = make_namespace()
        self._bridge, self._port = bridge, f"port{number}"
        namespaces.connect(bridge, self.place, left_name=self._port)
        bridge.ip(f"link set {self._port} master bridge")
        self.place.ip(f"address add {self.address}/24 dev eth0")

    def cut(self):
        self._bridge.ip(f"link set {self._port} nomaster")  # The carrier stays.


class SmallPeer:
    """The peer "pump", from the description of the protocol."""

    def __init__(self, cabinet, _):
        self._place = cabinet.place
        with self._place:
            self._listener = wire.Listener()
        self._streams = []

    def start(self):
        with self._place:
            wire.Ether().announce(self._listener.port, GROUP, "10.1.1.255")

    def writes(self, value):
        """To whoever accepts it as "pump"."""
        while True:
            self._streams.append(serve(self._listener, b"pump"))
            if self._streams[-1].receive_record():
                return self._streams[-1].send(wire.record(b"\x05state" b"alive", value))

    def dies(self):
        pass  # Nobody can tell.


class WholeProcess:
    """The peer "pump", from the library."""

    def __init__(self, cabinet, make_host):
        with cabinet.place:
            self._host = make_host("--default-log")

    def start(self):
        self._host.share(b"plant", GROUP, b"pump", b"q", address="10.1.1.255")

    def writes(self, value):
        self._host.set(b"plant", b"state", b"alive", value)

    def dies(self):
        self._host.kill()


@pytest.fixture
def cabinets(make_namespace):
    bridge = make_namespace()
    bridge.ip("link add bridge type bridge")
    bridge.ip("link set bridge up")
    return [Cabinet(make_namespace, bridge, number) for number in (1, 2, 3)]


@pytest.mark.parametrize("kind", [SmallPeer, WholeProcess])
def test_a_peer_that_was_cut_off_is_met_elsewhere_when_its_old_stream_is_given_up(cabinets, make_host, kind):
    here, before, after = cabinets
    with here.place:
        observer = make_host()
    observer.watch(b"plant", b"state")
    observer.share(b"plant", GROUP, b"press", address="10.1.1.255")
    old, new = kind(before, make_host), kind(after, make_host)
    old.start()
    old.writes(b"1")
    assert observer.gets_row(b"plant", b"state", b"alive", b"1")

    before.cut()
    old.dies()
    restarted = time.monotonic()
    new.start()
    new.writes(b"2")

    assert observer.gets_row(b"plant", b"state", b"alive", b"2")
    took = time.monotonic() - restarted
    assert observer.logs(3, "cook.rd.rd", "Cookie::Read: read error 110")  # The end of the old stream.
    # Nobody knows before the silence has lasted that the old stream is dead.
    were_met_in_time("restart elsewhere after a silent cut, from the restart", [took], SILENCE + SECONDS)
