# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Members with many databases, in one group, where each announcement makes each of them connect to each, or in many."""

import resource
import time

import pytest

import programs

DATABASES = 10 if programs.EMULATOR else 50
DATABASES_WITH_A_GROUP_EACH = 200 if programs.NATIVE else 20
# Wanted are 10 at most. The short form may be slowed down by a busy machine, but not until the next announcement.
SECONDS = 10 if programs.SOAK else 50


def databases_met(host, name, databases):
    """In how many the row of the other has come."""
    return sum(host.table(b"db%d" % number, b"t").get(name) == b"1" for number in range(databases))


@pytest.fixture
def pair(network, make_host):
    return [(b"left", make_host("--errors-only")), (b"right", make_host("--errors-only"))]


def meet_in_every_database(pair, databases, group_of, descriptors):
    for name, host in pair:
        host.limit(resource.RLIMIT_NOFILE, descriptors)
        for number in range(databases):
            host.watch(b"db%d" % number, b"t")
            host.set(b"db%d" % number, b"t", name, b"1")
    begin = time.monotonic()
    for number in range(databases):
        for name, host in pair:
            host.share(b"db%d" % number, group_of(number), name)

    (left, one), (right, other) = pair
    for host, name in ((one, right), (other, left)):
        have_met = host.eventually(lambda: databases_met(host, name, databases) == databases, 2 * programs.DEADLINE)
        assert have_met, (name, databases_met(host, name, databases))
    took = time.monotonic() - begin
    assert took < SECONDS or not programs.NATIVE
    return took


def test_two_processes_meet_in_every_database_of_one_group(pair):
    begin = time.monotonic()

    took = meet_in_every_database(pair, DATABASES, lambda number: b"line-4", 1024)

    programs.figure(f"{DATABASES} databases of one group met both ways after {took:.1f} s")
    for _, host in pair:
        tags = [tag for _, tag, _ in host.log]
        most = 1 + 10 * (time.monotonic() - begin)  # Of thousands of places that had to wait.
        assert tags.count("tblsvr.fnd.thread") <= most, tags
        assert tags.count("tblsvr.acc.thread") <= most, tags


def test_two_processes_meet_in_every_database_with_a_group_of_its_own(pair):
    databases = DATABASES_WITH_A_GROUP_EACH

    took = meet_in_every_database(pair, databases, lambda number: b"line-%d" % number, 4096)

    programs.figure(f"{databases} databases with a group each met both ways after {took:.1f} s")
    assert not {"tblsvr.fnd.thread", "tblsvr.acc.thread"} & {tag for _, host in pair for _, tag, _ in host.log}
