"""A host that forks without exec: the child ends well, and nobody else notices that it has been there."""

import pytest

import wire
from endings import WITHOUT_LEAK_DETECTION


@pytest.mark.parametrize("end", ["return", "exit"])
def test_a_forked_child_ends_and_the_streams_of_its_parent_go_on(ether, make_host, end):
    host = make_host(environment=WITHOUT_LEAK_DETECTION)
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
    host = make_host(environment=WITHOUT_LEAK_DETECTION)
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


def test_a_child_that_is_forked_before_anything_is_shared_ends(network, make_host):
    host = make_host(environment=WITHOUT_LEAK_DETECTION)
    host.set(b"plant", b"t", b"k", b"v")

    host.do("fork", "return")

    assert [event for event in host.events if event.startswith("child")] == ["child exited 7"]


def test_a_child_that_calls_for_its_own_sharing_writes_nothing_into_the_pipes_of_its_parent(ether, make_host):
    host = make_host(environment=WITHOUT_LEAK_DETECTION)
    host.share(b"plant", b"line-4", b"press")
    port = ether.port_of_next_announcement()

    for number in range(1, 11):
        host.do("fork", "share")
        # What the discovery thread finds in a pipe it says before it says this.
        ether.send(b"x")
        assert host.eventually(lambda number=number: len(host.logged(3, "tblsvr.dscv.sz", ".*")) >= number)

    assert [event for event in host.events if event.startswith("child")] == ["child exited 7"] * 10
    assert host.logged(7, "tblsvr.dscv.chg", ".*") == []
    assert wire.connect(port).receive_record() == (b"plant", b"\x05pressp")
