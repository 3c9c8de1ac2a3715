# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Several hosts, each in a network namespace of its own."""

import hashlib
import random
import subprocess

import pytest

import namespaces
import programs
import wire

EVERYBODY = "0.0.0.0"  # The limited broadcast address, 255.255.255.255.


@pytest.fixture
def three_places(make_namespace):
    """Three namespaces on one bridge: 10.1.1.1, 10.1.1.2 and 10.1.1.3."""
    bridge, places = make_namespace(), [make_namespace() for _ in range(3)]
    bridge.ip("link add bridge type bridge")
    bridge.ip("link set bridge up")
    for number, place in enumerate(places, 1):
        namespaces.connect(bridge, place, left_name=f"port{number}")
        bridge.ip(f"link set port{number} master bridge")
        place.ip(f"address add 10.1.1.{number}/24 dev eth0")
        place.ip("route add 255.255.255.255/32 dev eth0")
    return places


@pytest.fixture
def two_places(make_namespace):
    """Two namespaces at the ends of one cable with an MTU of 1500: 10.1.1.1 and 10.1.1.2."""
    left, right = make_namespace(), make_namespace()
    namespaces.connect(left, right)
    left.ip("address add 10.1.1.1/24 dev eth0")
    right.ip("address add 10.1.1.2/24 dev eth0")
    for place in (left, right):
        # What a cable does, and memory does not: nothing is handed over in pieces larger than a packet.
        place.ip("link set eth0 gso_max_segs 1")
    return left, right


def start_in(place, make_host):
    with place:
        return make_host()


def test_an_announcement_to_everybody_is_heard_on_the_other_hosts(three_places, make_host):
    here, there, _ = three_places
    with there:
        ether = wire.Ether()
    host = start_in(here, make_host)

    host.share(b"plant", b"line-4", b"press", address=EVERYBODY)
    datagram, (address, port) = ether.socket.recvfrom(65536)

    assert (datagram[2:], address, port) == (b"line-4", "10.1.1.1", 1975)


def test_three_hosts_on_one_bridge_converge_to_equal_tables(three_places, make_host):
    hosts = [start_in(place, make_host) for place in three_places]
    expected = {}
    for number, host in enumerate(hosts):
        source = random.Random(number)
        host.watch(b"plant", b"state")
        for row in range(50):
            key, value = b"%d:%d:" % (number, row) + source.randbytes(20), source.randbytes(row * 40)
            expected[key] = value or b"-"
            host.set(b"plant", b"state", key, expected[key])

    for number, host in enumerate(hosts):
        host.share(b"plant", b"line-4", b"host %d" % number, address=EVERYBODY)

    for host in hosts:
        assert host.eventually(lambda host=host: host.table(b"plant", b"state") == expected)


def test_rows_set_while_sharing_reach_every_other_host(three_places, make_host):
    hosts = [start_in(place, make_host) for place in three_places]
    for number, host in enumerate(hosts):
        host.watch(b"plant", b"state")
        host.share(b"plant", b"line-4", b"host %d" % number, address=EVERYBODY)

    for round_ in range(1, 21):
        for number, host in enumerate(hosts):
            host.set(b"plant", b"state", b"of %d" % number, b"%d" % round_)

    for host in hosts:
        assert host.eventually(lambda host=host: host.table(b"plant", b"state") == {
            b"of 0": b"20", b"of 1": b"20", b"of 2": b"20"})
        assert programs.steps_back(host.rows(b"plant", b"state")) == []


def test_a_changed_network_brings_a_host_in_whose_first_announcement_nobody_heard(three_places, make_host):
    first, second, _ = three_places
    second.ip("link set eth0 down")
    left, right = start_in(first, make_host), start_in(second, make_host)
    left.watch(b"plant", b"state")
    right.watch(b"plant", b"state")
    left.set(b"plant", b"state", b"left", b"1")
    right.set(b"plant", b"state", b"right", b"2")
    left.share(b"plant", b"line-4", b"left", address=EVERYBODY)
    right.share(b"plant", b"line-4", b"right", address=EVERYBODY)
    assert right.logs(7, "tblsvr.dscv.sendto", "TableServer: Discover::sendto error 101")

    second.ip("link set eth0 up")
    second.ip("route replace 255.255.255.255/32 dev eth0")
    right.do("network-changed")

    assert right.gets_row(b"plant", b"state", b"left", b"1")
    assert left.gets_row(b"plant", b"state", b"right", b"2")
    assert right.logs(7, "tblsvr.dscv.chg",
                      r"TableServer for right::p::plant\(0x[0-9a-f]+\) notified of network change")


def share_across(left, right):
    left.share(b"plant", b"line-4", b"left", address="10.1.1.255")
    right.share(b"plant", b"line-4", b"right", address="10.1.1.255")
    for host, row in ((left, b"of left"), (right, b"of right")):
        host.set(b"plant", b"small", row, b"1")
    assert left.gets_row(b"plant", b"small", b"of right", b"1")
    assert right.gets_row(b"plant", b"small", b"of left", b"1")


@pytest.mark.parametrize("size", [1_000_000, 1_048_575])
def test_the_largest_values_cross_a_cable_whole_both_ways_amid_other_rows(two_places, make_host, size):
    left, right = [start_in(place, make_host) for place in two_places]
    for host in (left, right):
        host.watch(b"plant", b"small")
        host.watch(b"plant", b"large")
    share_across(left, right)
    values = {host: random.Random(host.pid).randbytes(size) for host in (left, right)}

    for number in range(2, 41):
        for host, name in ((left, b"left"), (right, b"right")):
            host.set(b"plant", b"small", b"of " + name, b"%d" % number)
            if number % 10 == 0:
                host.set(b"plant", b"large", b"%s %d" % (name, number), values[host])

    for host, far, name in ((left, right, b"right"), (right, left, b"left")):
        assert host.gets_row(b"plant", b"small", b"of " + name, b"40")
        assert programs.steps_back(host.rows(b"plant", b"small")) == []
        for number in (10, 20, 30, 40):
            key = b"%s %d" % (name, number)
            assert host.eventually(lambda: key in host.table(b"plant", b"large"))
            received = host.table(b"plant", b"large")[key]
            assert len(received) == size
            assert hashlib.sha256(received).digest() == hashlib.sha256(values[far]).digest()


def test_a_value_above_the_limit_arrives_cut_and_the_stream_goes_on(two_places, make_host):
    left, right = [start_in(place, make_host) for place in two_places]
    right.watch(b"plant", b"small")
    right.watch(b"plant", b"large")
    left.watch(b"plant", b"small")
    share_across(left, right)

    left.set(b"plant", b"large", b"k", b"v" * (1_048_576 + 3))
    left.set(b"plant", b"small", b"after", b"1")

    assert right.gets_row(b"plant", b"large", b"k", b"vvv")
    assert right.gets_row(b"plant", b"small", b"after", b"1")


def greeted_by_a_peer(host, place):
    """The stream of a peer there that has announced itself to the host, and has said who it is."""
    host.share(b"plant", b"line-4", b"left", address="10.1.1.255")
    with place:
        peer = wire.Listener()
        wire.Ether().announce(peer.port, b"line-4", "10.1.1.255")
        stream = peer.accept()
        stream.send(wire.hello(b"plant", b"right", b"q"))
    return stream


def gives_up_its_peer(host):
    return (host.logs(3, "cook.rd.rd", "Cookie::Read: read error 1(10|13)")  # Timed out, or no route.
            and host.logs(7, "tblrcvr.dtor", r"TableReceiver\(0x[0-9a-f]+\) stopping"))


def test_a_peer_that_falls_silent_is_given_up_by_the_side_that_receives(two_places, make_host):
    left, right = two_places
    host = start_in(left, make_host)
    stream = greeted_by_a_peer(host, right)
    assert stream.receive(10) == b"\x00\x60\x00\x02" b"line-4"

    right.ip("link set eth0 down")  # As when power is lost: no packet tells of it.

    assert gives_up_its_peer(host)


def test_a_peer_that_dies_before_it_has_taken_our_answer_is_given_up_as_soon(two_places, make_host):
    left, right = two_places
    host = start_in(left, make_host)
    with right:
        for command in ("table inet wall", "chain inet wall input { type filter hook input priority 0 ; }",
                        "rule inet wall input tcp flags & (syn | psh) == psh drop"):  # All that carries bytes.
            subprocess.run(["nft", f"add {command}"], check=True)

    stream = greeted_by_a_peer(host, right)  # Which stays open.

    assert host.logs(7, "tblrcvr.strm.grp", ".*")
    assert gives_up_its_peer(host)
    stream.close()
