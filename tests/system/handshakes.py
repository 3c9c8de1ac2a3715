# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Streams between a peer of the test and a host that shares the database "plant" as press::p in group line-4."""

import wire

GROUP = b"line-4"


def receive_from(host, group=b"elsewhere", port=9):
    """A peer's receiving stream, after the handshake."""
    stream = wire.connect(host.port)
    assert stream.receive_record() == (b"plant", b"\x05pressp")
    stream.send(wire.answer(group, port))
    return stream


def introduce(ether, database=b"plant", identity=b"\x04pump" b"q"):
    """A peer's sending stream: what the host answers to its first record is still to be read."""
    peer = wire.Listener()
    ether.announce(peer.port, GROUP)
    stream = peer.accept()
    peer.close()  # A stream that ends is tried again, and finds nobody then.
    stream.send(wire.record(database, identity))
    return stream


def send_to(ether, identity=b"\x04pump" b"q"):
    """A peer's sending stream, after the handshake."""
    stream = introduce(ether, identity=identity)
    assert stream.receive(10) == b"\x00\x60\x00\x02" b"line-4"
    stream.receive(2)
    return stream
