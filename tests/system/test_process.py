# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""What the library does not do to the process that it lives in."""

import os
import pathlib
import random
import re
import resource

import pytest

import programs
import wire
from handshakes import GROUP, receive_from, send_to


@pytest.fixture
def host(ether, make_host):
    made = make_host()
    made.share(b"plant", GROUP, b"press")
    made.port = ether.port_of_next_announcement()
    settle(made, meetings=1)
    return made


def settle(host, meetings):
    """Waits until the connection that a member makes to itself at first is over: what is open now stays open."""
    assert host.eventually(lambda: len(host.logged(7, "tblrcvr.gotuid", ".* got uid: press::p")) >= meetings)
    own = 3 + 2 + 2 * 2  # The standard streams, two sockets and two pipes.
    assert programs.eventually(lambda: len(host.descriptors()) == own)


# Descriptors.


def test_a_started_program_inherits_none_of_the_descriptors_of_sharing(host, ether):
    host.watch(b"plant", b"t")
    receiving, sending, silent = receive_from(host), send_to(ether), wire.connect(host.port)
    silent.receive_record()
    host.set(b"plant", b"t", b"k", b"v")
    assert receiving.receive_record() == (b"\x01tk", b"v")
    sending.send(wire.record(b"\x01tl", b"w"))
    assert host.gets_row(b"plant", b"t", b"l", b"w")

    host.do("spawn")
    child, = host.children()
    asleep = pathlib.Path(f"/proc/{child}/comm")
    assert programs.eventually(lambda: asleep.read_text(encoding="ascii") == "sleep\n")

    assert len(host.descriptors()) >= 3 + 2 + 2 * 2 + 3  # Ours, two sockets, two pipes and three streams.
    # Its loader has others for a moment.
    assert programs.eventually(lambda: sorted(os.listdir(f"/proc/{child}/fd")) == ["0", "1", "2"])


def test_a_process_that_becomes_another_program_keeps_no_descriptor_and_no_stream(host, ether):
    receiving, sending, silent = receive_from(host), send_to(ether), wire.connect(host.port)
    silent.receive_record()

    host.do("exec")

    assert receiving.is_closed() and sending.is_closed() and silent.is_closed()
    assert programs.eventually(lambda: host.descriptors() == {0, 1, 2})  # Its loader has others for a moment.


def test_sharing_anew_leaves_no_descriptor_behind(host, ether):
    receiving, sending = receive_from(host), send_to(ether)

    host.share(b"plant", GROUP, b"press")

    settle(host, meetings=2)
    assert receiving.is_closed() and sending.is_closed()


# Standard streams.


def test_a_flush_of_all_streams_returns_while_a_receiving_stream_is_idle(host, ether):
    host.watch(b"plant", b"t")
    stream = send_to(ether)

    host.do("flush")

    stream.send(wire.record(b"\x01tk", b"v"))
    assert host.gets_row(b"plant", b"t", b"k", b"v")


def test_a_flush_of_all_streams_returns_while_a_peer_has_connected_and_is_silent(host):
    stream = wire.connect(host.port)
    stream.receive_record()

    host.do("flush")

    stream.send(wire.answer(b"elsewhere", 9))
    host.set(b"plant", b"t", b"k", b"v")
    assert stream.receive_record() == (b"\x01tk", b"v")


def test_a_flush_of_all_streams_ends_while_a_peer_does_not_read_and_spoils_nothing(host):
    stream = receive_from(host)
    source = random.Random(1)
    rows = [(b"%02d" % number, source.randbytes(1_000_000)) for number in range(20)]
    for key, value in rows:
        host.set(b"plant", b"t", key, value)
    # The sender has met a full connection when what waits to be read here does not grow any more.
    assert programs.eventually(lambda: stream.unread() > 0)
    assert programs.eventually(stream.stopped_growing)

    host.do("flush")
    host.do("flush")

    for key, value in rows:
        assert stream.receive_record() == (b"\x01t" + key, value)


def test_nothing_is_written_to_standard_output(host, ether):
    receiving, sending = receive_from(host), send_to(ether)
    host.set(b"plant", b"t", b"k", b"v")
    receiving.receive_record()
    sending.send(wire.record(b"\x01tl", b"w"))
    assert host.logs(7, "tblcmbn.set", r"TableDecombiner\(0x[0-9a-f]+\) setting t:l \(1 bytes\)")
    ether.send(b"x")
    assert host.logs(3, "tblsvr.dscv.sz", ".*")

    assert host.clean_up() == 0

    assert host.events == []


def test_the_log_before_a_hook_is_set_is_errors_alone_on_standard_error(ether, make_host):
    host = make_host("--default-log")
    host.share(b"plant", GROUP, b"press")
    ether.receive()

    ether.send(b"x")

    line = "tblsvr.dscv.sz: TableServer: Discover::recvfrom: wrong size: 1: "
    assert host.eventually(lambda: any(text.startswith(line) for text in host.errors))
    assert host.clean_up() == 0
    assert len(host.errors) == 1
    assert host.events == []


def test_a_process_that_ends_destroys_its_databases_and_stops_their_servers(host):
    assert host.clean_up() == 0

    assert len(host.logged(7, "tblcmbn.dtor", r"DB\(0x[0-9a-f]+\) destructed")) == 1
    assert host.logged(7, "tbl.set.ins", r"Table\(0x[0-9a-f]+\) inserting row for done \(1 bytes\)")


# Signals.


def threads(host):
    return {int(name) for name in os.listdir(f"/proc/{host.pid}/task")}


def signal_state(host, thread):
    """None when the thread has ended."""
    try:
        status = pathlib.Path(f"/proc/{host.pid}/task/{thread}/status").read_text(encoding="ascii")
    except (FileNotFoundError, ProcessLookupError):
        return None
    return re.findall(r"^Sig(?:Blk|Ign|Cgt):.*$", status, re.MULTILINE)


def test_signal_handlers_and_masks_are_left_alone(ether, make_host):
    host = make_host()
    host.watch(b"plant", b"t")  # A thread of the host's own: the first one makes libc catch a signal.
    earlier = threads(host)
    before = signal_state(host, host.pid)

    host.share(b"plant", GROUP, b"press")
    host.port = ether.port_of_next_announcement()
    receiving, sending = receive_from(host), send_to(ether)
    host.set(b"plant", b"t", b"k", b"v")
    receiving.receive_record()
    sending.send(wire.record(b"\x01tl", b"w"))
    assert host.gets_row(b"plant", b"t", b"l", b"w")

    assert signal_state(host, host.pid) == before
    added = threads(host) - earlier
    assert len(added) >= 4  # Discovery, accepting and two streams.
    # A thread that has only just started may have all signals blocked.
    assert programs.eventually(lambda: all(signal_state(host, thread) in (before, None) for thread in added))


def test_writing_to_a_peer_that_resets_the_connection_raises_no_signal(host):
    host.watch(b"plant", b"t")
    for attempt in range(5):
        stream = receive_from(host)
        for number in range(3):
            host.set(b"plant", b"t", b"%d" % number, b"%d" % attempt * 1_000_000)
        stream.receive(1000)
        stream.reset()

    assert host.eventually(lambda: len(host.logged(7, "tblsndr.dtor", ".*")) >= 5)
    host.set(b"plant", b"t", b"alive", b"1")
    assert host.gets_row(b"plant", b"t", b"alive", b"1")


# Want of descriptors and threads.


def lowest_free(descriptors):
    return next(number for number in range(len(descriptors) + 1) if number not in descriptors)


def test_want_of_descriptors_neither_burns_the_processor_nor_floods_the_log(host):
    limit = host.limit(resource.RLIMIT_NOFILE, lowest_free(host.descriptors()))
    used = host.processor_seconds()

    waiting = wire.connect(host.port)  # The kernel accepts it; the process cannot.
    refusals = "TableServer: Accept::accept error 24"
    assert host.logs(3, "tblsvr.acc.acc", refusals)
    first = os.times().elapsed
    awaited = len(host.logged(3, "tblsvr.acc.acc", refusals)) + 10
    assert host.eventually(lambda: len(host.logged(3, "tblsvr.acc.acc", refusals)) >= awaited)
    elapsed = os.times().elapsed - first
    used = host.processor_seconds() - used
    host.limit(resource.RLIMIT_NOFILE, limit)

    assert elapsed >= 0.5  # Ten pauses of a tenth of a second; a few may have gone by before the clock was read.
    assert used < elapsed / 2
    assert waiting.receive_record() == (b"plant", b"\x05pressp")


def test_neighbours_leave_the_process_descriptors_of_its_own(host, ether):
    limit = host.limit(resource.RLIMIT_NOFILE, 128)
    silent = [wire.Listener() for _ in range(100)]
    visitors = [wire.connect(host.port) for _ in range(100)]
    for place in silent:
        ether.announce(place.port, GROUP)

    assert host.logs(3, "tblsvr.acc.thread", "TableServer: IncomingConnection::thread error 11")
    assert host.logs(3, "tblsvr.fnd.thread", "TableServer: FoundPeer::thread error 11")
    programs.figure("of 128 descriptors, 200 silent neighbours take", len(host.descriptors()))
    host.share(b"another", GROUP, b"press")  # It would end the process to have no sockets for this.

    for neighbour in (*silent, *visitors):
        neighbour.close()
    host.limit(resource.RLIMIT_NOFILE, limit)


@pytest.fixture
def limited(host):
    """The host, which cannot start threads."""
    host.forbid_threads()
    yield host
    host.do("allow-threads")


def test_a_connection_for_which_no_thread_can_be_started_is_closed_with_a_log_line(limited):
    stream = wire.connect(limited.port)

    assert stream.is_closed()
    assert limited.logs(3, "tblsvr.acc.thread", "TableServer: IncomingConnection::thread error 11")


def test_an_announcement_without_a_thread_for_it_is_logged_and_the_next_followed(limited, ether):
    peer = wire.Listener()
    ether.announce(peer.port, GROUP)
    assert limited.logs(3, "tblsvr.fnd.thread", "TableServer: FoundPeer::thread error 11")

    limited.do("allow-threads")
    ether.announce(peer.port, GROUP)

    assert peer.accept()
