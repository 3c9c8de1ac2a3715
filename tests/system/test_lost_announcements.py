# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Hosts on a network that loses every second announcement of each, and nothing else."""

import array
import fcntl
import os
import select
import socket
import struct
import threading
import time

import pytest

import namespaces
import programs
import wire

HOSTS = 3
EVERYBODY = "0.0.0.0"  # The limited broadcast address, 255.255.255.255.
BURST = [0, 2, 4, 6]  # When a host announces itself after NetworkChanged(), in seconds.
# Of the first two announcements of the burst one is heard, so nobody has to wait for the third.
BOUND = BURST[2] if programs.NATIVE else programs.DEADLINE
SIOCETHTOOL, ETHTOOL_STXCSUM = 0x8946, 0x17
ALL_PROTOCOLS = 3


def fill_in_checksums(place):
    """In the packets that leave it: else the device would have to, and this one is memory."""
    off = array.array("I", [ETHTOOL_STXCSUM, 0])
    with place, socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        fcntl.ioctl(any_socket, SIOCETHTOOL, struct.pack("16sP16x", b"eth0", off.buffer_info()[0]))


def is_announcement(frame):
    past_ip = 14 + (frame[14] & 15) * 4
    return (frame[12:14] == b"\x08\x00" and frame[23] == socket.IPPROTO_UDP
            and frame[past_ip + 2:past_ip + 4] == struct.pack(">H", wire.DISCOVERY_PORT))


class LossyHub:
    """Hands each frame on to all its other ports, but loses the first, third, fifth... announcement from each."""

    def __init__(self, ports):
        self.announced = dict.fromkeys(ports, 0)
        self._sockets = {}
        for port in ports:
            opened = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
            opened.bind((port, ALL_PROTOCOLS))
            self._sockets[opened] = port
        self._stopped, self._stop = os.pipe()
        self._thread = threading.Thread(target=self._run)
        self._thread.start()

    def _run(self):
        while self._stopped not in (readable := select.select([*self._sockets, self._stopped], [], [])[0]):
            for source in readable:
                frame, (_, _, kind, *_) = source.recvfrom(65536)
                if kind != socket.PACKET_OUTGOING and not self._loses(self._sockets[source], frame):
                    self._flood(source, frame)

    def _loses(self, port, frame):
        if not is_announcement(frame):
            return False
        self.announced[port] += 1
        return self.announced[port] % 2 == 1

    def _flood(self, source, frame):
        for other in self._sockets:
            if other is not source:
                try:
                    other.send(frame)
                except OSError:
                    pass  # The far end is down.

    def close(self):
        os.write(self._stop, b"x")
        self._thread.join()
        for opened in self._sockets:
            opened.close()
        os.close(self._stop)
        os.close(self._stopped)


@pytest.fixture
def hub_and_places(make_namespace):
    """A place at each port of the hub; the links are down."""
    middle, made = make_namespace(), [make_namespace() for _ in range(HOSTS)]
    for number, place in enumerate(made):
        namespaces.connect(middle, place, left_name=f"port{number}")
        place.ip(f"address add 10.1.1.{number + 1}/24 dev eth0")
        fill_in_checksums(place)
        place.ip("link set eth0 down")
    with middle:
        hub = LossyHub([f"port{number}" for number in range(HOSTS)])
    yield hub, made
    hub.close()


def start(make_host, places, number, value):
    with places[number]:
        host = make_host()
    host.watch(b"plant", b"state")
    host.set(b"plant", b"state", b"of %d" % number, value)
    host.share(b"plant", b"line-4", b"host %d" % number, address=EVERYBODY)
    return host


def seconds_to_meet(told, hosts, values):
    """From the moment on when some are told that the network has changed."""
    begin = time.monotonic()
    for host in told:
        host.do("network-changed")
    expected = {b"of %d" % number: value for number, value in enumerate(values)}
    assert programs.eventually(lambda: all(host.table(b"plant", b"state") == expected for host in hosts), BOUND)
    return time.monotonic() - begin


def test_hosts_meet_and_meet_again_though_every_second_announcement_is_lost(hub_and_places, make_host):
    hub, places = hub_and_places
    hosts = [start(make_host, places, number, b"1") for number in range(HOSTS)]
    for place, host in zip(places, hosts):
        assert host.logs(7, "tblsvr.dscv.sendto", "TableServer: Discover::sendto error 101")
        place.ip("link set eth0 up")
        place.ip("route add 255.255.255.255/32 dev eth0")

    met = seconds_to_meet(hosts, hosts, [b"1"] * HOSTS)
    assert met >= BURST[1]  # The first of each is lost.
    assert programs.eventually(lambda: set(hub.announced.values()) == {len(BURST)})

    hosts[0].kill()
    hosts[0] = start(make_host, places, 0, b"2")
    assert programs.eventually(lambda: hub.announced["port0"] == len(BURST) + 1)  # This one is lost, too.
    met_again = seconds_to_meet(hosts[:1], hosts, [b"2", b"1", b"1"])

    for host in hosts[1:]:
        assert programs.steps_back(host.rows(b"plant", b"state")) == []
    programs.figure("every second announcement lost:", HOSTS, "hosts met", round(met, 2), "s after they were told,",
                    "and after a restart", round(met_again, 2), "s after one was; the bound is", BOUND, "s")
