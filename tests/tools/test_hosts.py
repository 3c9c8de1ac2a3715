# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""The command among several hosts, many members and many rows."""

import json
import os
import statistics
import time

import pytest

import namespaces
import programs
from command import eventually_taken_by, run
from programs import EMULATOR, figure

EVERYBODY = {"VARNIX_BROADCAST": "255.255.255.255"}
MEMBERS = 64 if not EMULATOR else 16  # Each is a process of its own.
ROWS = 100_000 if programs.NATIVE else 10_000


@pytest.fixture
def places(make_namespace):
    """Four namespaces on one bridge: 10.1.1.1 to 10.1.1.4."""
    bridge, hosts = make_namespace(), [make_namespace() for _ in range(4)]
    bridge.ip("link add bridge type bridge")
    bridge.ip("link set bridge up")
    for number, host in enumerate(hosts, 1):
        namespaces.connect(bridge, host, left_name=f"port{number}")
        bridge.ip(f"link set port{number} master bridge")
        host.ip(f"address add 10.1.1.{number}/24 dev eth0")
        host.ip("route add 255.255.255.255/32 dev eth0")
    return hosts


def share_in(place, make_host, device, rows):
    with place:
        host = make_host()
    for key, value in rows:
        host.set(b"plant", b"status", key, value)
    host.share(b"plant", b"line-4", device, b"ctl", "0.0.0.0")
    return host


def test_members_on_three_hosts_are_shown_with_their_addresses_from_a_fourth(places, make_host, start):
    for place, device in zip(places, (b"press", b"pump", b"valve")):
        share_in(place, make_host, device, [(device, b"1")])

    with places[3]:
        watch = start("watch", "--json", "-n", "3", **EVERYBODY)
        assert watch.ends() == 0

        expected = {("press", "10.1.1.1"), ("pump", "10.1.1.2"), ("valve", "10.1.1.3")}
        assert {(row["device"], row["address"]) for row in map(json.loads, watch.lines)} == expected
        assert programs.eventually(lambda: expected == {
            (member["device"], member["address"]) for member in run("members", "--json", **EVERYBODY).rows()})


def test_a_row_that_is_set_on_one_host_reaches_members_on_three(places, make_host):
    hosts = [share_in(place, make_host, device, []) for place, device in zip(places, (b"press", b"pump", b"valve"))]
    for host in hosts:
        host.watch(b"plant", b"status")

    with places[3]:
        assert eventually_taken_by(3, **EVERYBODY)
    for host in hosts:
        assert host.gets_row(b"plant", b"status", b"speed", b"42")


def test_a_member_that_loses_its_link_for_long_is_received_again(places, make_host, start):
    press = share_in(places[0], make_host, b"press", [(b"speed", b"1")])
    with places[3]:
        watch = start("watch", "status", **EVERYBODY)
    assert watch.prints(b"press::ctl  status  speed = 1")

    places[0].ip("link set eth0 down")
    assert watch.says("press::ctl at 10.1.1.1:[0-9]+ was lost: ")
    press.set(b"plant", b"status", b"speed", b"2")
    places[0].ip("link set eth0 up")

    assert watch.prints(b"press::ctl  status  speed = 2")


@pytest.fixture
def crowd(network, make_host):
    """Members that hear everybody who looks for them, and not each other: they announce themselves to one address."""
    hosts = []
    for number in range(MEMBERS):
        hosts.append(make_host())
        hosts[-1].set(b"plant", b"status", b"of %d" % number, b"%d" % number)
        hosts[-1].share(b"plant", b"line-4", b"host %d" % number, b"ctl", "127.0.0.1")
    return hosts


def test_every_member_of_a_crowd_is_met(crowd, start):
    watch = start("watch", "--json", "-n", str(MEMBERS))
    assert watch.ends() == 0

    assert {(row["device"], row["key"]) for row in map(json.loads, watch.lines)} == {
        (f"host {number}", f"of {number}") for number in range(MEMBERS)}
    assert programs.eventually(lambda: len(run("members").output.splitlines()) == MEMBERS)
    assert programs.eventually(lambda: len(run("dump").output.splitlines()) == MEMBERS)


RUNS = 3 if programs.NATIVE else 1  # Sanitizers and emulators are not measured.
SILENCE = 0.5  # Seconds; what shows that all rows have come.


def processor_seconds(host):
    """Of the commands that have ended, and of the host."""
    times = os.times()
    return times.children_user + times.children_system + host.processor_seconds()


def test_many_rows_are_dumped_and_taken(network, make_host):
    press = make_host("--default-log")  # The other log is slower than what is measured.
    value = b"x" * 32
    press.set_all(b"plant", b"status", ((b"key %012d" % number, value) for number in range(ROWS)))
    press.share(b"plant", b"line-4", b"press")

    passed, needed = [], []  # Seconds; an idle machine takes no longer than what is needed.

    def measure():
        begun, used = time.monotonic(), processor_seconds(press)
        dump = run("dump", "--json", "-w", "60")
        passed.append(time.monotonic() - begun)
        needed.append(processor_seconds(press) - used + SILENCE)
        assert (dump.status, dump.errors, dump.output.count(b"\n")) == (0, "", ROWS)
        return dump

    def is_soon():
        return min(needed) < 1.5 or not programs.NATIVE

    dump = [measure() for _ in range(RUNS)][-1]

    figure(f"{ROWS} rows dumped as JSON in {statistics.median(passed) * 1000:.0f} ms, "
           f"{statistics.median(needed) * 1000:.0f} ms without the work of others")
    assert is_soon() or programs.eventually(lambda: measure() and is_soon()), needed  # The caches may be taken, too.
    assert {row["key"] for row in dump.rows()} == {"key %012d" % number for number in range(ROWS)}
    done = run("load", "--device", "bench", "-w", "60", data=dump.output)
    assert (done.status, done.errors) == (0, f"varnix: {ROWS} rows taken by 1 member\n")


def test_the_first_row_is_there_soon(network, make_host):
    press = make_host()
    press.set(b"plant", b"status", b"speed", b"42")
    press.share(b"plant", b"line-4", b"press")

    def measure():
        begun = time.monotonic()
        assert run("watch", "-n", "1").output == b"press::p  status  speed = 42\n"
        return time.monotonic() - begun

    passed = []

    def is_soon():
        passed.append(measure())
        return sum(seconds < 0.1 for seconds in passed) >= RUNS or not programs.NATIVE

    assert programs.eventually(is_soon), passed  # A busy machine has many tries.
    figure(f"first row {statistics.median(sorted(passed)[:RUNS]) * 1000:.0f} ms after the start of the command")
