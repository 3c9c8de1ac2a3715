# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Two writers of one key, and what a connection anew brings: each case of the tables in docs/writers.md."""

import itertools

import pytest

import namespaces
import wire

GROUP = b"line-4"
rounds = itertools.count(1)


def start(host, device, group=GROUP):
    host.watch(b"plant", b"state")
    host.share(b"plant", group, device)
    return host


def all_has_arrived(*hosts):
    """Rows arrive in the order in which they were set: behind these is nothing more."""
    number = b"%d" % next(rounds)
    for host in hosts:
        host.set(b"plant", b"state", b"marker of %d" % host.pid, number)
    for host, other in itertools.permutations(hosts, 2):
        assert host.gets_row(b"plant", b"state", b"marker of %d" % other.pid, number)


def set_everywhere(host, value, *hosts):
    host.set(b"plant", b"state", b"k", value)
    all_has_arrived(*hosts)


def shows(host):
    return host.table(b"plant", b"state").get(b"k")


@pytest.fixture
def members(network, make_host):
    return [start(make_host(), device) for device in (b"a", b"b")]


# Two writers of one key.


def test_a_value_that_is_set_when_that_of_the_other_writer_has_arrived_stays(members):
    a, b = members
    for writer, value in ((a, b"1"), (b, b"2"), (a, b"3")):
        set_everywhere(writer, value, a, b)

        assert (shows(a), shows(b)) == (value, value)


def test_a_value_that_the_other_writer_has_set_already_is_no_change_for_any_watcher(members):
    a, b = members
    set_everywhere(a, b"3", a, b)

    set_everywhere(b, b"3", a, b)

    for host in members:
        assert [value for key, value in host.rows(b"plant", b"state") if key == b"k"] == [b"3"]


def test_two_values_that_cross_each_other_change_places(ether, make_host):
    a = start(make_host(), b"a")
    receiving = wire.connect(ether.port_of_next_announcement())
    receiving.receive_record()
    receiving.send(wire.answer(b"elsewhere", 9))
    listener = wire.Listener()
    ether.announce(listener.port, GROUP)
    sending = listener.accept()
    sending.send(wire.hello(b"plant", b"b", b"p"))
    sending.receive_record()

    a.set(b"plant", b"state", b"k", b"1")
    sending.send(wire.record(b"\x05statek", b"2"))  # Whoever sends it has not received the other.

    assert a.gets_row(b"plant", b"state", b"k", b"2")
    assert shows(a) == b"2"
    assert receiving.receive_record() == (b"\x05statek", b"1")


def test_a_value_that_its_writer_has_set_last_is_not_sent_again(members):
    a, b = members
    for writer, value in ((a, b"1"), (b, b"2"), (a, b"1")):
        set_everywhere(writer, value, a, b)

    assert (shows(a), shows(b)) == (b"1", b"2")


def test_who_joins_two_writers_shows_the_value_of_either(members, make_host):
    a, b = members
    set_everywhere(a, b"1", a, b)
    set_everywhere(b, b"2", a, b)

    c = start(make_host(), b"c")
    all_has_arrived(a, b, c)

    assert (shows(a), shows(b)) == (b"2", b"2")
    assert shows(c) in (b"1", b"2")


def test_two_writers_that_share_anew_get_the_values_of_each_other(members):
    a, b = members
    set_everywhere(a, b"1", a, b)
    set_everywhere(b, b"2", a, b)

    a.share(b"plant", GROUP, b"a")
    a.do("network-changed")
    all_has_arrived(a, b)

    assert (shows(a), shows(b)) == (b"2", b"1")


# One writer, A, and a reader, B.


@pytest.mark.parametrize("seconds, value", [(1, b"2"), (6, b"1")])
def test_after_a_short_failure_of_the_link_new_rows_come_and_after_a_longer_one_all(
        make_namespace, make_host, seconds, value):
    places = [make_namespace(), make_namespace()]
    namespaces.connect(*places)
    hosts = []
    for number, place in enumerate(places, 1):
        place.ip(f"address add 10.1.1.{number}/24 dev eth0")
        with place:
            hosts.append(make_host())
        hosts[-1].watch(b"plant", b"state")
    for host, device in zip(hosts, (b"a", b"b")):
        host.share(b"plant", GROUP, device, address="10.1.1.255")
    a, b = hosts
    set_everywhere(a, b"1", a, b)
    set_everywhere(b, b"2", a, b)

    places[0].ip("link set eth0 down")
    a.set(b"plant", b"state", b"set meanwhile", b"1")
    assert not b.eventually(lambda: b.table(b"plant", b"state").get(b"set meanwhile"), seconds)
    places[0].ip("link set eth0 up")

    assert b.gets_row(b"plant", b"state", b"set meanwhile", b"1")
    all_has_arrived(a, b)
    assert shows(b) == value


def test_a_row_that_a_reader_has_overwritten_has_its_old_value_after_a_new_stream(ether, make_host):
    b = start(make_host(), b"b")
    listener = wire.Listener()
    for ended, own in enumerate((b"2", b"3")):
        assert b.eventually(lambda: len(b.logged(6, "tblsvr.fnd.rcv.err", ".*")) == ended)
        ether.announce(listener.port, GROUP)
        stream = listener.accept()
        stream.send(wire.hello(b"plant", b"a", b"p"))
        assert stream.receive_record()[0] == GROUP
        stream.send(wire.record(b"\x05statek", b"1"))
        assert b.eventually(lambda: shows(b) == b"1")
        b.set(b"plant", b"state", b"k", own)
        assert b.gets_row(b"plant", b"state", b"k", own)
        stream.close()


@pytest.fixture
def ended(members):
    """What is left when A has set a row, and has ended."""
    a, b = members
    set_everywhere(a, b"1", a, b)
    assert a.ends() == 0
    return b


def test_the_rows_of_a_process_that_has_ended_stay(ended):
    ended.watch(b"plant", b"state")

    assert ended.eventually(lambda: ended.rows(b"plant", b"state").count((b"k", b"1")) == 2)


def test_a_process_that_starts_again_changes_nothing_until_it_sets_other_values(ended, make_host):
    a = start(make_host(), b"a")
    all_has_arrived(a, ended)
    assert shows(ended) == b"1"

    set_everywhere(a, b"4", a, ended)

    assert shows(ended) == b"4"


def test_a_process_that_starts_again_shows_the_rows_of_others_and_none_of_its_own(ended, make_host):
    ended.set(b"plant", b"state", b"of b", b"1")

    a = start(make_host(), b"a")
    all_has_arrived(a, ended)

    shown = a.table(b"plant", b"state")
    assert (shown.get(b"of b"), shown.get(b"k")) == (b"1", None)


def test_who_joins_after_a_writer_has_ended_gets_no_row_of_it(ended, make_host):
    c = start(make_host(), b"c")
    all_has_arrived(ended, c)

    assert shows(c) is None


def test_a_member_that_moves_to_another_group_leaves_its_rows_and_takes_them_along(members, make_host):
    a, b = members
    other = start(make_host(), b"other", group=b"line-5")
    set_everywhere(a, b"1", a, b)

    a.share(b"plant", b"line-5", b"a")
    a.set(b"plant", b"state", b"k", b"2")

    assert other.gets_row(b"plant", b"state", b"k", b"2")
    assert b"marker of %d" % a.pid in other.table(b"plant", b"state")
    assert shows(b) == b"1"
