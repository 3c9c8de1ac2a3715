# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""What neighbours may do to a process while its healthy peers go on."""

import os
import random
import resource
import socket
import struct
import time

import pytest

import namespaces
import programs
import wire
from programs import EMULATOR, SOAK

GROUP = b"line-4"
MEBIBYTE = 1 << 20
# What the C library keeps for later, free memory of each thread's own heap and the stacks of threads that have ended,
# is not what this is about.
KEEPS_NOTHING = {"GLIBC_TUNABLES": "glibc.malloc.arena_max=1:glibc.pthread.stack_cache_size=0"}


def threads(host):
    return len(os.listdir(f"/proc/{host.pid}/task"))


class Plant:
    """A process under attack, and two healthy peers whose rows it watches."""

    def __init__(self, ether, host):
        self.ether = ether
        self.host = host
        self.host.watch(b"plant", b"state")
        self.threads = threads(host) + 2 + 2  # Discovery and accepting; and a receiver for each healthy peer.
        self.host.share(b"plant", GROUP, b"press")
        self.port = ether.port_of_next_announcement()
        self.healthy = []
        for name in (b"pump", b"valve"):
            self.healthy.append((name, self.meet(name)))
        self.rounds = 0
        self.slowest = 0.0  # Seconds from the sending of a healthy peer's row to its arrival.
        self.slowest_of_each = {}
        self.rows_keep_arriving()

    def meet(self, name):
        """Has the process receive from one peer more."""
        listener = wire.Listener()
        self.ether.announce(listener.port, GROUP)
        stream = listener.accept()
        listener.close()
        stream.send(wire.hello(b"plant", name, b"q"))
        assert stream.receive_record()[0] == GROUP
        return stream

    def rows_of_healthy_peers_arrive(self):
        self.rounds += 1
        start = time.monotonic()
        for name, stream in self.healthy:
            stream.send(wire.record(b"\x05state" + name, b"%d" % self.rounds))
        for name, _ in self.healthy:
            assert self.host.gets_row(b"plant", b"state", name, b"%d" % self.rounds)
        self.slowest = max(self.slowest, time.monotonic() - start)

    def rows_keep_arriving(self):
        """Both ways: from the healthy peers, and to one that connects now."""
        self.rows_of_healthy_peers_arrive()
        self.host.set(b"plant", b"state", b"own", b"%d" % self.rounds)
        visitor = wire.connect(self.port)
        assert visitor.receive_record() == (b"plant", b"\x05pressp")
        visitor.send(wire.answer(b"elsewhere", 9))
        while visitor.receive_record() != (b"\x05stateown", b"%d" % self.rounds):
            pass
        visitor.close()

    def cost(self):
        """Threads, descriptors and bytes in use."""
        self.host.do("trim")
        return threads(self.host), len(self.host.descriptors()), programs.private_memory(self.host.pid)


@pytest.fixture(scope="module")
def plant():
    """One process for all attacks; the last test looks at what they have left."""
    if namespaces.why_unavailable():
        pytest.skip(namespaces.why_unavailable())
    with namespaces.Namespace() as namespace:
        ether = wire.Ether()
        host = programs.Host("--default-log", environment=KEEPS_NOTHING)
        host.limit(resource.RLIMIT_NOFILE, 4096)  # So that there may be 1,024 peers of each direction.
        yield Plant(ether, host)
        assert host.clean_up() == 0
        # What the want of threads, the flood and the resets leave in the log, and nothing else.
        tags = {line.partition(":")[0] for line in host.errors}
        assert tags <= {"tblsvr.fnd.thread", "tblsvr.acc.thread", "cook.rd.rd"}, host.errors
        ether.socket.close()
    namespace.close()


def settled(plant):
    """What the process costs when nobody is there but its healthy peers."""
    # Threads that try to reach a peer do so for half a minute after it was announced.
    assert programs.eventually(lambda: threads(plant.host) == plant.threads, 2 * programs.DEADLINE), threads(plant.host)
    return plant.cost()


@pytest.fixture(scope="module", autouse=True)
def rest(plant):
    return settled(plant)


@pytest.fixture(autouse=True)
def healthy_peers_go_on(plant, request):
    plant.slowest = 0.0
    yield
    plant.rows_keep_arriving()
    attack = request.function.__name__
    plant.slowest_of_each[attack] = max(plant.slowest, plant.slowest_of_each.get(attack, 0.0))


def refused_for_want_of_threads(plant):
    """Many connections and an announcement, when the process has no thread for them."""
    before = len(plant.host.errors)
    streams, served = [], 0
    for _ in range(20):
        streams.append(wire.connect(plant.port))
        served += streams[-1].receive_record() is not None
    assert served <= 2  # The C library may have kept the stack of a thread that has ended.
    listener = wire.Listener()
    plant.ether.announce(listener.port, GROUP)
    line = "tblsvr.fnd.thread: TableServer: FoundPeer::thread error 11: Resource temporarily unavailable"
    assert plant.host.eventually(lambda: line in plant.host.errors[before:])
    plant.rows_of_healthy_peers_arrive()
    for closing in (listener, *streams):
        closing.close()


@programs.only_natively  # The address space of others is that of the sanitizer or the emulator.
def test_connections_while_no_address_space_is_left_for_a_thread(plant):
    settled(plant)
    used = programs.address_space(plant.host.pid)
    limit = plant.host.limit(resource.RLIMIT_AS, used + 224 * 1024)  # A thread takes 256 KiB.

    refused_for_want_of_threads(plant)
    plant.host.limit(resource.RLIMIT_AS, limit)

    plant.meet(b"met with address space again").close()


def test_connections_while_no_thread_can_be_started(plant):
    plant.host.forbid_threads()

    refused_for_want_of_threads(plant)
    plant.host.do("allow-threads")

    plant.meet(b"met with threads again").close()


def test_five_hundred_connections_that_say_nothing(plant):
    silent = []
    for _ in range(500):
        silent.append(wire.connect(plant.port))
        assert silent[-1].receive_record() == (b"plant", b"\x05pressp")
    plant.rows_keep_arriving()
    programs.figure("500 silent connections: threads, descriptors, bytes:", *plant.cost())

    for stream in silent:
        stream.close()


def test_a_peer_that_sends_a_byte_now_and_then(plant):
    listener = wire.Listener()
    plant.ether.announce(listener.port, GROUP)
    stream = listener.accept()
    message = wire.hello(b"plant", b"slow", b"q")
    seconds = len(message) if SOAK else 5
    start = time.monotonic()
    for position in range(len(message) - 1):
        stream.send(message[position:position + 1])
        plant.rows_keep_arriving()
        while time.monotonic() < start + min(position + 1, seconds):
            time.sleep(0.1)  # The attack is to be as slow as this: a byte a second.
            plant.rows_of_healthy_peers_arrive()

    stream.send(message[-1:])
    assert stream.receive_record()[0] == GROUP
    stream.send(wire.record(b"\x05stateslow", b"1"))
    assert plant.host.gets_row(b"plant", b"state", b"slow", b"1")
    stream.close()
    listener.close()


def test_two_hundred_announced_ports_that_accept_and_say_nothing(plant):
    silent = [wire.Listener() for _ in range(200)]
    for listener in silent:
        plant.ether.announce(listener.port, GROUP)
    accepted = [listener.accept() for listener in silent]
    plant.rows_keep_arriving()
    programs.figure("200 silent listeners: threads, descriptors, bytes:", *plant.cost())
    assert threads(plant.host) >= plant.threads + 200

    start = time.monotonic()
    plant.meet(b"met among silent ones").close()
    programs.figure("200 silent listeners: a healthy peer is met after", round(time.monotonic() - start, 3), "s")

    for closing in (*silent, *accepted):
        closing.close()


@pytest.mark.parametrize("end", [wire.Connection.half_close, wire.Connection.reset])
def test_a_sender_that_ends_in_the_middle_of_its_snapshot(plant, end):
    listener = wire.Listener()
    name = b"cut " + end.__name__.encode()
    plant.ether.announce(listener.port, GROUP)
    for rows in (2, 3):  # The process comes back for the rest.
        stream = listener.accept()
        stream.send(wire.hello(b"plant", name, b"q"))
        assert stream.receive_record()[0] == GROUP
        snapshot = b"".join(wire.record(b"\x05state" + name + b"%d" % row, b"v" * 1000) for row in range(3))
        stream.send(snapshot if rows == 3 else snapshot[:-1])
        assert plant.host.gets_row(b"plant", b"state", name + b"%d" % (rows - 1), b"v" * 1000)
        plant.rows_keep_arriving()
        assert (name + b"2" in plant.host.table(b"plant", b"state")) == (rows == 3)
        end(stream)
    listener.close()


def test_a_peer_whose_name_is_as_long_as_a_record_can_be(plant):
    listener = wire.Listener()
    plant.ether.announce(listener.port, GROUP)
    stream = listener.accept()
    stream.send(wire.record(b"plant", b"\xff" * 1048575))
    assert stream.receive_record()[0] == GROUP

    stream.send(wire.record(b"\x05statelong name", b"1"))

    assert plant.host.gets_row(b"plant", b"state", b"long name", b"1")
    stream.close()
    listener.close()


@pytest.mark.parametrize("lengths", [(0, 0), (0, 1), (1, 0), (1, 1), (4095, 0), (0, 1048575), (4095, 1048575)])
@pytest.mark.parametrize("whole", [True, False], ids=["whole", "cut short"])
def test_records_of_every_extreme_length_in_place_of_the_first(plant, lengths, whole):
    data = wire.record(b"\xff" * lengths[0], b"\xfe" * lengths[1])
    data = data if whole else data[:-1]
    listener = wire.Listener()
    plant.ether.announce(listener.port, GROUP)
    served = listener.accept()
    listener.close()
    served.send(data)
    served.close()
    visitor = wire.connect(plant.port)
    visitor.receive_record()
    visitor.send(data)
    visitor.half_close()

    assert visitor.is_closed()
    visitor.close()


@pytest.mark.parametrize("key", [b"", b"\0", b"\xff", b"\xffabc", b"\x05state", b"\x05stat", b"\x00key"])
def test_rows_whose_keys_are_malformed(plant, key):
    name, stream = plant.healthy[0]
    for value in (b"", b"v" * 1048575, b"\0"):
        stream.send(wire.record(key, value))

    plant.rows_keep_arriving()
    assert name == b"pump"


def test_a_peer_that_half_closes(plant):
    visitor = wire.connect(plant.port)
    visitor.receive_record()
    visitor.send(wire.answer(b"elsewhere", 9))
    visitor.half_close()

    while visitor.receive_record() is not None:
        pass
    visitor.close()


def test_a_peer_that_resets_in_the_middle_of_the_snapshot(plant):
    for number in range(100):
        plant.host.set(b"plant", b"large", b"%d" % number, b"v" * 50_000)
    for _ in range(20):
        visitor = wire.connect(plant.port)
        visitor.receive_record()
        visitor.send(wire.answer(b"elsewhere", 9))
        visitor.receive(1000)
        visitor.reset()
    for number in range(100):
        plant.host.set(b"plant", b"large", b"%d" % number, b"gone")


def test_a_peer_that_claims_every_identity(plant):
    listener = wire.Listener()
    for name in (b"press", b"pump", b"valve", b"", b"\xff" * 255):
        plant.ether.announce(listener.port, GROUP)
        stream = listener.accept()
        stream.send(wire.hello(b"plant", name, b"p" if name == b"press" else b"q"))
        if name in (b"press", b"pump", b"valve"):
            assert stream.is_closed()
        else:
            assert stream.receive_record()[0] == GROUP
        stream.close()
    listener.close()


def test_a_connection_to_itself(plant):
    for _ in range(20):
        plant.ether.announce(plant.port, GROUP)

    plant.rows_keep_arriving()


def test_a_flood_of_announcements_of_the_right_group_with_ports_of_nobody(plant):
    count = 500 if EMULATOR else 10_000
    source = random.Random(1)
    speaker = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    speaker.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
    most = 0
    start = time.monotonic()
    for number in range(count):
        # Of every two, one is refused for sure, and one may be anybody's.
        port = source.randrange(1, 1024) if number % 2 else source.randrange(1 << 16)
        speaker.sendto(struct.pack(">H", port) + GROUP, ("127.255.255.255", wire.DISCOVERY_PORT))
        if number % 100 == 0:
            most = max(most, threads(plant.host))
        if number % 1000 == 0:
            plant.rows_keep_arriving()
        time.sleep(max(0.0, start + number * 10 / count - time.monotonic()))  # The flood's pace.
    speaker.close()
    programs.figure("a flood of", count, "announcements in", round(time.monotonic() - start, 1), "s: threads:", most,
                    "and bytes:", plant.cost()[2])

    assert most <= 1024 + 50
    plant.rows_keep_arriving()


def test_nothing_is_left_of_all_that(plant, rest):
    after = settled(plant)

    for attack, slowest in plant.slowest_of_each.items():
        programs.figure(f"{attack}: a healthy row took at most", round(slowest, 4), "s")
    programs.figure("threads, descriptors, bytes before all attacks:", *rest, "and after:", *after)
    assert after[:2] == rest[:2]
    if programs.NATIVE:
        assert after[2] <= rest[2] + MEBIBYTE
