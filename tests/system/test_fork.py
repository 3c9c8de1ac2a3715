# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""A host that forks without exec: the child ends well, and nobody else notices that it has been there."""

import os
import pathlib

import pytest

import programs
import wire
from endings import WITHOUT_LEAK_DETECTION

# The thread sanitizer takes it for a mistake that the child of a process with threads starts some.
FORKING = {**WITHOUT_LEAK_DETECTION, "TSAN_OPTIONS": os.environ.get("TSAN_OPTIONS", "") + " die_after_fork=0"}

# How a child that starts threads is made. The emulator (qemu-user 7.2) does not forget the numbers of the threads that
# a child lacks, gives them to threads of the child, and fails an assertion. Only above the number of the thread that
# forks all are free: so there the newest thread forks.
CHILDREN = ["child-of-a-thread"] if programs.EMULATOR else ["child", "child-of-a-thread"]
of_any_thread = pytest.mark.parametrize("child", CHILDREN)


@pytest.mark.parametrize("end", ["return", "exit"])
def test_a_forked_child_ends_and_the_streams_of_its_parent_go_on(ether, make_host, end):
    host = make_host(environment=FORKING)
    host.watch(b"plant", b"t")
    host.share(b"plant", b"line-4", b"press")
    port = ether.port_of_next_announcement()
    receiving = wire.connect(port)
    assert receiving.receive_record() == (b"plant", b"\x05pressp")
    receiving.send(wire.answer(b"elsewhere", 9))
    host.set(b"plant", b"t", b"before", b"1")
    assert receiving.receive_record() == (b"\x01tbefore", b"1")
    peer = wire.Listener()
    ether.announce(peer.port, b"line-4")
    sending = peer.accept()
    sending.send(wire.hello(b"plant", b"pump", b"q"))
    assert sending.receive_record() == (b"line-4", port.to_bytes(2, "big"))

    for _ in range(50):
        host.do("fork", end)
    host.set(b"plant", b"t", b"after", b"2")
    sending.send(wire.record(b"\x01tfar", b"3"))

    assert [event for event in host.events if event.startswith("child")] == ["child exited 7"] * 50
    assert receiving.receive_record() == (b"\x01tafter", b"2")
    assert host.gets_row(b"plant", b"t", b"far", b"3")
    newcomer = wire.connect(port)
    assert newcomer.receive_record() == (b"plant", b"\x05pressp")


@pytest.mark.parametrize("end", ["return", "exit"])
def test_a_child_that_is_forked_while_a_peer_does_not_read_sends_nothing_of_its_own(ether, make_host, end):
    host = make_host(environment=FORKING)
    host.share(b"plant", b"line-4", b"press")
    stream = wire.connect(ether.port_of_next_announcement())
    stream.receive_record()
    stream.send(wire.answer(b"elsewhere", 9))
    for number in range(20):
        host.set(b"plant", b"t", b"%02d" % number, b"%d" % (number % 10) * 1_000_000)

    for _ in range(10):
        host.do("fork", end)

    assert [event for event in host.events if event.startswith("child")] == ["child exited 7"] * 10
    for number in range(20):
        assert stream.receive_record() == (b"\x01t%02d" % number, b"%d" % (number % 10) * 1_000_000)


@pytest.mark.parametrize("end", ["return", "exit"])
def test_a_child_that_is_forked_while_rows_wait_to_leave_together_sends_none_of_them(ether, make_host, end):
    # The kernel takes so little that rows stay in the library's own buffer while the peer does not read.
    for name in "tcp_wmem", "tcp_rmem":
        pathlib.Path("/proc/sys/net/ipv4", name).write_text("4096 16384 16384", encoding="ascii")
    host = make_host("--default-log", environment=FORKING)  # A hook of the host's would have each row leave at once.
    rows = [(b"%05d" % number, b"v") for number in range(4000)]
    host.set_all(b"plant", b"t", rows)
    host.share(b"plant", b"line-4", b"press")
    stream = wire.connect(ether.port_of_next_announcement())
    stream.receive_record()
    stream.send(wire.answer(b"elsewhere", 9))
    assert programs.eventually(lambda: stream.unread() > 0)
    assert programs.eventually(stream.stopped_growing)

    for _ in range(10):
        host.do("fork", end)

    assert [event for event in host.events if event.startswith("child")] == ["child exited 7"] * 10
    for key, value in rows:
        assert stream.receive_record() == (b"\x01t" + key, value)


def test_a_child_that_is_forked_before_anything_is_shared_ends(network, make_host):
    host = make_host(environment=FORKING)
    host.set(b"plant", b"t", b"k", b"v")

    host.do("fork", "return")

    assert [event for event in host.events if event.startswith("child")] == ["child exited 7"]


def last(host, kind):
    """The last event of a kind: rows may come at any time."""
    return [event for event in list(host.events) if event.startswith(kind + " ")][-1]


def has_met_itself(host, logged):
    """Whether the two threads of a server that meets itself are at their end; `logged` log lines came before it.

    A thread that begins or ends holds a lock of the emulator (qemu-user 7.2), which stays locked in a child.
    """
    return host.eventually(lambda: "tblsndr.dtor" in {tag for _, tag, _ in host.log[logged:]})


def shares_like_any_process(ether, host, process, group=b"line-4"):
    """The host shares as `process`: a peer gets its rows, and it gets the peer's. Returns its port and the streams."""
    logged = len(host.log)
    host.set(b"plant", b"t", b"of " + process, b"1")
    host.watch(b"plant", b"t")
    host.share(b"plant", group, b"press", process)
    peer = wire.Listener()
    port = ether.port_of_next_announcement()
    receiving = wire.connect(port)
    assert receiving.receive_record() == (b"plant", b"\x05press" + process)
    receiving.send(wire.answer(group, peer.port))
    while receiving.receive_record() != (b"\x01tof " + process, b"1"):
        pass  # What its parent has set comes first.
    sending = peer.accept()
    sending.send(wire.hello(b"plant", b"pump", b"q"))
    assert sending.receive_record() == (group, port.to_bytes(2, "big"))
    sending.send(wire.record(b"\x01tto " + process, b"2"))
    assert host.gets_row(b"plant", b"t", b"to " + process, b"2")
    host.do("group", "706c616e74")
    assert last(host, "group").startswith(f"group {group.hex()} ")
    assert has_met_itself(host, logged)
    return port, (receiving, sending)  # To be kept: no thread of the server ends as long as they stand.


@of_any_thread
@pytest.mark.parametrize("used", [False, True])
def test_a_child_of_a_process_that_has_not_shared_shares(ether, make_host, used, child):
    host = make_host(environment=FORKING)
    if used:
        host.set(b"other", b"t", b"k", b"v")
        host.watch(b"other", b"t")

    host.do(child)

    shares_like_any_process(ether, host, b"child")
    host.do("return")
    assert last(host, "child") == "child exited 0"


@of_any_thread
def test_a_child_of_a_sharing_process_is_a_member_of_its_own(ether, make_host, child):
    host = make_host(environment=FORKING)
    parents_port, _streams = shares_like_any_process(ether, host, b"parent")
    assert host.logs(7, "tblsvr.fnd", ".* found peer: .*")  # What its server has told until now has been read.
    servers = {text.split("(0x")[1].split(")")[0] for _, tag, text in host.log if tag == "tblsvr.ctor"}
    assert len(servers) == 1

    host.do(child)

    logged = len(host.log)
    host.do("group", "706c616e74")
    assert last(host, "group") == "group none"
    host.do("network-changed")
    # The parent's own threads may tell that their peer has gone, and that they have given it up.
    told = {tag for _, tag, text in host.log[logged:] if any(server in text for server in servers)}
    assert told <= {"tblsvr.fnd.rcv.err", "tblsvr.fnd.rcv.err.fail"}, told
    host.set(b"plant", b"t", b"of parent", b"2")  # Its copy.
    host.share(b"plant", b"line-4", b"press", b"child")
    port = ether.port_of_next_announcement()
    assert port != parents_port
    stream = wire.connect(port)
    assert stream.receive_record() == (b"plant", b"\x05presschild")
    stream.send(wire.answer(b"elsewhere", 9))
    assert stream.receive_record() == (b"\x01tof parent", b"2")
    host.do("return")
    assert stream.is_closed()
    assert last(host, "child") == "child exited 0"
    newcomer = wire.connect(parents_port)
    newcomer.receive_record()
    newcomer.send(wire.answer(b"elsewhere", 9))
    assert newcomer.receive_record() == (b"\x01tof parent", b"1")


def tables_of(host):
    """The names that GetLocalTables() lists."""
    host.do("list-tables")
    return sorted(programs.unhexed(word) for word in last(host, "tables").split()[1:])


# The parent meets itself just then, and the emulator fails if the thread for that is newer than the one that forks.
@programs.not_emulated
@of_any_thread
def test_a_child_lists_the_tables_that_are_its_own(ether, make_host, child):
    host = make_host(environment=FORKING)
    host.set(b"other", b"t", b"k", b"v")
    host.set(b"plant", b"t", b"k", b"v")
    unshared = tables_of(host)
    host.share(b"plant", b"line-4", b"press")
    stream = wire.connect(ether.port_of_next_announcement())
    stream.receive_record()
    stream.send(wire.answer(b"elsewhere", 9))
    assert stream.receive_record() == (b"\x01tk", b"v")  # The thread that sends uses the server's table.
    shared = tables_of(host)
    assert shared == sorted([*unshared, b"_vrx_.ts_done.plant"])

    host.do(child)

    assert tables_of(host) == unshared
    host.share(b"plant", b"line-4", b"press", b"child")
    assert tables_of(host) == shared
    host.do("return")
    assert last(host, "child") == "child exited 0"


def streams_of(ether, host):
    """A stream from the host, and one to it."""
    logged = len(host.log)
    host.share(b"plant", b"line-4", b"press")
    port = ether.port_of_next_announcement()
    receiving = wire.connect(port)
    receiving.receive_record()
    receiving.send(wire.answer(b"elsewhere", 9))
    peer = wire.Listener()
    ether.announce(peer.port, b"line-4")
    sending = peer.accept()
    sending.send(wire.hello(b"plant", b"pump", b"q"))
    assert sending.receive_record() == (b"line-4", port.to_bytes(2, "big"))
    host.set(b"plant", b"t", b"marker", b"1")
    assert receiving.receive_record() == (b"\x01tmarker", b"1")
    assert has_met_itself(host, logged)
    return receiving, sending


@pytest.mark.parametrize("end", ["shares anew", "exits", "is killed"])
def test_peers_see_the_end_of_a_parents_streams_although_a_child_sleeps_on(ether, make_host, end):
    host = make_host(environment=FORKING)
    streams = streams_of(ether, host)
    host.do("sleeper")

    if end == "shares anew":
        host.share(b"plant", b"another group", b"press")
    elif end == "exits":
        assert host.ends() == 0
    else:
        host.kill()

    for stream in streams:
        stream.socket.settimeout(1)
        assert stream.is_closed()


def test_a_successor_is_received_from_although_a_child_of_the_one_before_sleeps_on(network, make_host):
    reader = make_host()
    reader.watch(b"plant", b"t")
    reader.share(b"plant", b"line-4", b"reader")
    first = make_host(environment=FORKING)
    first.set(b"plant", b"t", b"k", b"1")
    first.share(b"plant", b"line-4", b"writer")
    assert reader.gets_row(b"plant", b"t", b"k", b"1")
    first.do("sleeper")
    first.kill()

    second = make_host(environment=FORKING)
    second.set(b"plant", b"t", b"k", b"2")
    second.share(b"plant", b"line-4", b"writer")

    assert reader.gets_row(b"plant", b"t", b"k", b"2")


@of_any_thread
def test_a_grandchild_is_a_member_of_its_own(ether, make_host, child):
    # Of one group they meet at any time, and then the thread that forks is not the newest; see above.
    def group_of(process):
        return process if programs.EMULATOR else b"line-4"

    host = make_host(environment=FORKING)
    _, _parents_streams = shares_like_any_process(ether, host, b"parent", group_of(b"parent"))
    host.do(child)
    _, _childs_streams = shares_like_any_process(ether, host, b"child", group_of(b"child"))
    host.do(child)

    shares_like_any_process(ether, host, b"grandchild", group_of(b"grandchild"))

    host.do("return")
    host.do("return")
    assert [event for event in host.events if event.startswith("child")] == ["child exited 0"] * 2


def test_a_daemon_shares_also_one_that_becomes_it_twice(ether, make_host):
    host = make_host(environment=FORKING)
    host.set(b"plant", b"t", b"before", b"0")

    host.do("daemon")
    host.do("daemon")

    host.share(b"plant", b"line-4", b"press", b"daemon")
    stream = wire.connect(ether.port_of_next_announcement())
    assert stream.receive_record() == (b"plant", b"\x05pressdaemon")
    stream.send(wire.answer(b"elsewhere", 9))
    assert stream.receive_record() == (b"\x01tbefore", b"0")


@of_any_thread
def test_children_in_turns_share_and_leave_their_parent_as_it_was(ether, make_host, child):
    host = make_host(environment=FORKING)
    receiving, _ = streams_of(ether, host)
    descriptors = host.descriptors()
    turns = 20 if programs.EMULATOR else 100

    for _ in range(turns):
        host.do(child)
        host.share(b"plant", b"line-5", b"press", b"child")
        host.do("return")

    assert [event for event in host.events if event.startswith("child")] == ["child exited 0"] * turns
    assert programs.eventually(lambda: host.descriptors() <= descriptors)
    host.set(b"plant", b"t", b"after", b"2")
    assert receiving.receive_record() == (b"\x01tafter", b"2")


@pytest.mark.parametrize("start", ["posix-spawn", "vfork"])
def test_a_program_that_is_started_without_fork_disturbs_nobody(ether, make_host, start):
    host = make_host(environment=FORKING)
    receiving, sending = streams_of(ether, host)

    for _ in range(10):
        host.do(start)

    assert [event for event in host.events if event.startswith("child")] == ["child exited 0"] * 10
    host.watch(b"plant", b"t")
    sending.send(wire.record(b"\x01tfar", b"3"))
    assert host.gets_row(b"plant", b"t", b"far", b"3")
    host.set(b"plant", b"t", b"after", b"2")
    assert receiving.receive_record() == (b"\x01tafter", b"2")


# The parent has just met its peer: see has_met_itself().
@programs.not_emulated
@of_any_thread
def test_a_child_is_told_that_the_peers_of_its_parent_are_not_its_own(network, make_host, child):
    host, pump = make_host(environment=FORKING), make_host()
    host.do("watch-peers", "706c616e74")
    host.share(b"plant", b"line-4", b"press")
    pump.share(b"plant", b"line-4", b"pump")
    row = f"peer 706c616e74 {b'pump::p'.hex()} "
    assert host.eventually(lambda: any(event.startswith(row) for event in host.events))

    host.do(child)
    host.do("watch-peers", "706c616e74")

    assert host.eventually(lambda: row + "-" in host.events)
    host.do("return")
    assert host.eventually(lambda: "child exited 0" in host.events)
