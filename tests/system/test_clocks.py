# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Hosts that have been up for so long that the milliseconds of their monotonic clocks outgrow 31 and 32 bits."""

import pathlib
import subprocess
import sys
import time

import pytest

import programs
import wire

BEGIN = [sys.executable, str(pathlib.Path(__file__).with_name("at_uptime.py"))]
EDGES = {b"2^31": 2**31 / 1000, b"2^32": 2**32 / 1000}  # Seconds.
LATE = 10  # Seconds; what a wait takes longer, on a busy machine, too.


@pytest.fixture
def make_host_before(network, make_host):
    """Hosts whose clocks reach the edge of that name after so many seconds."""
    tried = subprocess.run([*BEGIN, "1", "true"], stderr=subprocess.PIPE, text=True)
    if tried.returncode != 0:
        pytest.skip(tried.stderr)
    return lambda name, seconds: make_host(program=[*BEGIN, str(round((EDGES[name] - seconds) * 1000)),
                                                    *programs.command("system_host")])


def in_time(prepare):
    """The hosts by their edges, which it has made and prepared a second before these at the latest."""
    for seconds in (3, 10, 40):  # More, where they take their time.
        hosts = prepare(seconds)
        if all(host.uptime() < EDGES[name] - 1 for name, host in hosts.items()):
            return hosts
        for host in hosts.values():
            host.kill()
    raise AssertionError("the machine is too slow to tell anything")


def pair_that_has_met(make_host_before):
    def prepare(seconds):
        hosts = {name: make_host_before(name, seconds) for name in EDGES}
        for name, host in hosts.items():
            host.watch(b"plant", b"state")
            host.share(b"plant", b"line-4", name)
            host.set(b"plant", b"state", name, b"1")
        for host in hosts.values():
            for far in EDGES:
                assert host.gets_row(b"plant", b"state", far, b"1")
        return hosts

    return in_time(prepare)


def test_rows_cross_both_ways_before_at_and_after_the_edge(make_host_before):
    hosts = pair_that_has_met(make_host_before)
    number = 1
    while any(host.uptime() < EDGES[name] + 1 for name, host in hosts.items()):
        number += 1
        for name, host in hosts.items():
            host.set(b"plant", b"state", name, b"%d" % number)
        for host in hosts.values():
            for far in EDGES:
                assert host.gets_row(b"plant", b"state", far, b"%d" % number)

    for host in hosts.values():
        assert programs.steps_back(host.rows(b"plant", b"state")) == []
    programs.figure("clocks at 2^31 and 2^32 ms:", number, "rows each way from before to after")


def test_hosts_that_start_before_the_edge_and_after_it_meet(make_host_before):
    def prepare(seconds):
        host = make_host_before(b"2^31", seconds)
        host.watch(b"plant", b"state")
        host.share(b"plant", b"line-4", b"before")
        return {b"2^31": host}

    before, after = in_time(prepare)[b"2^31"], make_host_before(b"2^32", 0)
    assert programs.eventually(lambda: before.uptime() > EDGES[b"2^31"] and after.uptime() > EDGES[b"2^32"])

    after.set(b"plant", b"state", b"after", b"1")
    after.share(b"plant", b"line-4", b"after")

    assert before.gets_row(b"plant", b"state", b"after", b"1")


@pytest.mark.parametrize("name", EDGES, ids=bytes.decode)
def test_waits_across_the_edge_end_at_their_deadlines_neither_early_nor_late(make_host_before, name):
    deadlines = [EDGES[name] + after for after in (-0.001, 0, 0.001, 0.5)]

    def prepare(seconds):
        host = make_host_before(name, seconds)
        for deadline in deadlines:
            host.wait_until(b"plant", b"empty", deadline)
        host.wait_until(b"plant", b"state", EDGES[name] + 10 * LATE)
        return {name: host}

    host = in_time(prepare)[name]
    nothing = host.waited(len(deadlines))
    host.set(b"plant", b"state", b"k", b"1")

    late = [round(ended - deadline, 3) for deadline, ended, _ in nothing]
    assert [key for _, _, key in nothing] == [None] * len(deadlines)
    assert 0 <= min(late) and max(late) < LATE
    _, ended, key = host.waited(len(deadlines) + 1)[-1]
    assert key == b"k" and EDGES[name] < ended < EDGES[name] + 2 * LATE
    programs.figure("waits across", name.decode(), "ms ended at most", round(max(late) * 1000), "ms late")


def test_announcements_keep_their_schedule_across_the_edge_and_idle_threads_sleep(make_host_before):
    hosts = pair_that_has_met(make_host_before)
    for name, host in hosts.items():
        assert programs.eventually(lambda name=name, host=host: host.uptime() > EDGES[name] - 1)
    ether = wire.Ether()
    starts = {name: (host.uptime(), host.processor_seconds()) for name, host in hosts.items()}
    asked = time.monotonic()
    for host in hosts.values():
        host.do("network-changed")

    heard = {}
    while min(map(len, heard.values()), default=0) < 3 or len(heard) < 2:
        datagram = ether.receive()
        heard.setdefault(datagram, []).append(time.monotonic() - asked)
    ether.socket.close()

    for (name, host), (start, used) in zip(hosts.items(), starts.values()):
        assert start < EDGES[name] < host.uptime()
        idle, used = host.uptime() - start, host.processor_seconds() - used
        programs.figure("idle across", name.decode(), "ms for", round(idle, 1), "s took", round(used, 2),
                        "s of a processor")
        assert used < idle / 4
    for times in heard.values():
        assert times[1] >= 2 and 4 <= times[2] < 4 + LATE, times
