# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""A peer that ends in order is no error to the others: the first log hook, which shows errors, shows nothing."""

import time

import pytest

import programs
from programs import hexed

DATABASES = [b"db%d" % number for number in range(5 if programs.EMULATOR else 20)]  # Each is met, and ends, by itself.


def share_everywhere(host, device, run):
    for database in DATABASES:
        host.set(database, b"t", device, run)
        host.share(database, b"group of " + database, device)


def has_met_everywhere(host, device, run):
    return host.eventually(lambda: all(host.table(database, b"t").get(device) == run for database in DATABASES))


@pytest.mark.parametrize("end", ["returns", "stops sharing", "shares anew"])
def test_a_peer_that_ends_in_order_leaves_no_error_in_the_log(network, make_host, end):
    observer, peer = make_host("--default-log"), make_host("--default-log")
    for database in DATABASES:
        observer.watch(database, b"t")
        observer.do("watch-peers", hexed(database))
        peer.watch(database, b"t")
    share_everywhere(observer, b"observer", b"1")
    share_everywhere(peer, b"peer", b"1")
    assert has_met_everywhere(observer, b"peer", b"1")
    assert has_met_everywhere(peer, b"observer", b"1")
    time.sleep(1.1)  # To a stream that has lasted a second the observer connects again at once when it ends.

    if end == "returns":
        assert peer.ends() == 0
    for database in DATABASES:
        if end == "stops sharing":
            peer.do("stop-sharing", hexed(database))
        elif end == "shares anew":
            peer.share(database, b"another group", b"peer")

    gone = [f"peer {hexed(database)} {hexed(b'peer::p')} -" for database in DATABASES]
    assert observer.eventually(lambda: set(gone) <= set(observer.events))
    # By the time that it has met another, it has tried to connect again.
    share_everywhere(make_host("--default-log"), b"another", b"2")
    assert has_met_everywhere(observer, b"another", b"2")
    assert observer.errors == []
