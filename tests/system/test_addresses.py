# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Which members meet with which broadcast addresses, on hosts with one network and with two."""

import socket
import struct

import pytest

import namespaces
import programs
import wire

GROUP = b"line-4"


@pytest.fixture
def networks(make_namespace):
    """A gateway between two networks, and a host in each: 10.0.1.x on its eth0 and 10.0.2.x on its eth1."""
    gateway, left, right = (make_namespace() for _ in range(3))
    for number, host in ((1, left), (2, right)):
        namespaces.connect(gateway, host, left_name=f"eth{number - 1}")
        gateway.ip(f"addr add 10.0.{number}.1/24 brd + dev eth{number - 1}")
        host.ip(f"addr add 10.0.{number}.2/24 brd + dev eth0")
    return gateway, left, right


@pytest.fixture
def make_member(make_host):
    def make(namespace, name, address):
        with namespace:
            host = make_host()
            host.watch(b"plant", b"state")
            host.set(b"plant", b"state", name, b"here")
            host.share(b"plant", GROUP, name, address=address)
        return host

    return make


def meet(left, left_name, right, right_name):
    return left.gets_row(b"plant", b"state", right_name, b"here") and right.gets_row(
        b"plant", b"state", left_name, b"here")


@pytest.mark.parametrize("device, number", [("eth0", 1), ("eth1", 2)])
def test_255_255_255_255_leaves_by_the_network_to_which_its_route_leads(device, number, networks, make_member):
    gateway = networks[0]
    gateway.ip(f"route add 255.255.255.255 dev {device}")
    listeners = []
    for namespace in networks[1:]:
        with namespace:
            listeners.append(wire.Ether())

    make_member(gateway, b"gateway", "255.255.255.255")

    datagram, (source, _) = listeners[number - 1].socket.recvfrom(256)
    assert (datagram[2:], source) == (GROUP, f"10.0.{number}.1")
    with networks[3 - number]:
        listeners[2 - number].send(b"marker", f"10.0.{3 - number}.255")
    assert listeners[2 - number].receive() == b"marker"  # And nothing before it.
    for listener in listeners:
        listener.socket.close()


def test_members_meet_as_soon_as_one_hears_the_other(networks, make_member):
    gateway, left, right = networks
    on_left = make_member(left, b"left", "127.255.255.255")  # Announces itself to its own device alone.
    on_right = make_member(right, b"right", "10.0.2.255")
    middle = make_member(gateway, b"gateway", "10.0.1.255")
    assert meet(middle, b"gateway", on_left, b"left")

    on_right.do("network-changed")

    assert meet(middle, b"gateway", on_right, b"right")
    middle.set(b"plant", b"state", b"marker", b"1")
    assert on_left.gets_row(b"plant", b"state", b"marker", b"1")
    assert b"right" not in on_left.table(b"plant", b"state"), "nothing is passed on"


def test_of_the_members_of_a_host_one_alone_hears_what_is_sent_to_its_address(network, make_host):
    hosts = [make_host() for _ in range(4)]
    for number, host in enumerate(hosts):
        host.share(b"plant", GROUP, b"%d" % number, address="127.0.0.1")

    def heard(port):
        return [host for host in hosts if host.logged(7, "tblrcvr.ctor", f".* for plant:2130706433:{port} starting")]

    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as speaker:
        speaker.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
        for port, address in ((1, "127.0.0.1"), (2, "127.255.255.255")):
            speaker.sendto(struct.pack(">H", port) + GROUP, (address, wire.DISCOVERY_PORT))

    assert programs.eventually(lambda: len(heard(2)) == 4 and heard(1))
    assert len(heard(1)) == 1
