# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""The datagrams by which the members of a group find each other."""

import pathlib
import time

import wire


def test_an_announcement_is_the_listening_port_and_the_group_broadcast_to_port_1975(ether, make_host):
    host = make_host()

    host.share(b"plant", b"line-4", b"press")
    datagram = ether.receive()

    assert datagram[2:] == b"line-4"
    stream = wire.connect(datagram[0] << 8 | datagram[1])
    assert stream.receive(4 + 5 + 7) == b"\x00\x50\x00\x07" b"plant" b"\x05press" b"p"


def test_zero_bytes_of_a_group_name_are_announced(ether, make_host):
    host = make_host()

    host.share(b"plant", b"li\0ne\0", b"press")

    assert ether.receive()[2:] == b"li\0ne\0"


def test_a_changed_network_is_answered_with_announcements_at_0_2_4_and_6_seconds(ether, make_host):
    host = make_host()
    host.share(b"plant", b"line-4", b"press")
    first = ether.receive()

    changed = time.monotonic()
    host.do("network-changed")
    heard = []
    for _ in range(4):
        datagram = ether.receive()
        heard.append((datagram, time.monotonic() - changed))

    assert [datagram for datagram, _ in heard] == [first] * 4
    # Never early; how late the machine lets them be is not ours to bound closely.
    for due, (_, seconds) in zip([0, 2, 4, 6], heard):
        assert due - 0.1 <= seconds <= due + 10


def test_two_databases_of_one_process_announce_a_port_each(ether, make_host):
    host = make_host()

    host.share(b"plant", b"line-4", b"press")
    host.share(b"store", b"line-4", b"press")
    ports = [ether.port_of_next_announcement() for _ in range(2)]
    streams = [wire.connect(port) for port in ports]

    assert sorted(stream.receive_record() for stream in streams) == [
        (b"plant", b"\x05pressp"), (b"store", b"\x05pressp")]


def test_an_announcement_of_the_own_group_is_followed_by_a_connection(ether, make_host):
    host = make_host()
    peer = wire.Listener()
    host.share(b"plant", b"line-4", b"press")

    ether.send(peer.port.to_bytes(2, "big") + b"line-4")

    assert peer.accept()


def test_a_port_of_nobody_that_connects_to_itself_is_a_failed_attempt(ether, make_host):
    host = make_host()
    host.share(b"plant", b"line-4", b"press")
    assert host.logs(7, "tblrcvr.gotuid", ".* got uid: press::p")  # By its own announcement it has reached itself.
    nobodys = 20_000
    # Whoever connects gets this very port, and TCP connects it to itself where nobody listens.
    pathlib.Path("/proc/sys/net/ipv4/ip_local_port_range").write_text(f"{nobodys} {nobodys}", encoding="ascii")

    ether.announce(nobodys, b"line-4")

    assert host.eventually(lambda: len(host.logged(7, "tblrcvr.sock.conn.succ", ".*")) == 2)
    assert host.logs(6, "tblsvr.fnd.rcv.err", f".* error from ReceiveTable for 2130706433:{nobodys}, retrying for .*")


def test_announcements_of_longer_and_shorter_groups_are_followed_by_none(ether, make_host):
    host = make_host()
    strangers, friend = wire.Listener(), wire.Listener()
    host.share(b"plant", b"line-4", b"press")

    for group in (b"", b"line-", b"line-44", b"line-4\0", b"Line-4"):
        ether.send(strangers.port.to_bytes(2, "big") + group)
    ether.send(friend.port.to_bytes(2, "big") + b"line-4")
    friend.accept().close()
    friend.close()
    host.share(b"plant", b"line-4", b"press")  # All threads of the first sharing have ended when this is done.

    assert host.logs(7, "tblrcvr.ctor", f".* for plant:2130706433:{friend.port} starting")
    assert not host.logged(7, "tblrcvr.ctor", f".* for plant:2130706433:{strangers.port} starting")


def test_datagrams_of_1_and_257_bytes_are_refused_with_their_size(ether, make_host):
    host = make_host()
    group = b"g" * 254
    host.share(b"plant", group, b"press")

    ether.send(b"\x00")
    ether.send(b"\x00\x00" + group + b"g")

    assert host.logs(3, "tblsvr.dscv.sz", "TableServer: Discover::recvfrom: wrong size: 1")
    assert host.logs(3, "tblsvr.dscv.sz", "TableServer: Discover::recvfrom: wrong size: 257")


def test_a_datagram_of_256_bytes_is_followed_by_a_connection(ether, make_host):
    host = make_host()
    peer = wire.Listener()
    group = b"g" * 254
    host.share(b"plant", group, b"press")

    ether.send(peer.port.to_bytes(2, "big") + group)

    assert peer.accept()


def test_a_network_without_a_route_is_no_error_and_sharing_starts(ether, make_host):
    host = make_host()

    host.share(b"plant", b"line-4", b"press", address="0.0.0.0")

    assert host.logs(7, "tblsvr.dscv.sendto", "TableServer: Discover::sendto error 101")
