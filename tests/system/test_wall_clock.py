# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""A wall clock that is set by years while a host shares: nothing but the monotonic clock counts."""

import pytest

import programs

TEN_YEARS = 10 * 365 * 24 * 60 * 60
SECONDS = 0.5  # How long a wait is asked to last.
LATE = 10  # Seconds; what a wait takes longer, on a busy machine, too.


@pytest.fixture
def jumping(network, make_host):
    """Reads the date ten years ahead and ten years behind in turn; see jumping_clock.cpp."""
    return make_host(program=programs.command("system_host_jumping"))


def test_the_date_jumps_by_twenty_years_at_each_reading_and_the_uptime_goes_on(jumping):
    dates, uptimes = zip(*[(jumping.date(), jumping.uptime()) for _ in range(4)])

    assert all(abs(later - earlier) > TEN_YEARS for earlier, later in zip(dates, dates[1:]))
    assert sorted(uptimes) == list(uptimes) and uptimes[-1] - uptimes[0] < LATE


def test_rows_cross_both_ways_between_hosts_of_which_one_has_a_date_that_jumps(jumping, make_host):
    plain = make_host()
    for host, name in ((jumping, b"jumping"), (plain, b"plain")):
        host.watch(b"plant", b"state")
        host.share(b"plant", b"line-4", name)

    for number in range(1, 51):
        for host, name, far in ((jumping, b"jumping", plain), (plain, b"plain", jumping)):
            host.set(b"plant", b"state", name, b"%d" % number)
            if number % 10 == 0:
                assert far.gets_row(b"plant", b"state", name, b"%d" % number)

    for host in (jumping, plain):
        assert programs.steps_back(host.rows(b"plant", b"state")) == []


def test_waits_end_at_their_deadlines_neither_early_nor_late(jumping):
    late = []
    for count in range(1, 6):
        jumping.wait_until(b"plant", b"empty", jumping.uptime() + SECONDS)
        assert len(jumping.waited(count)) == count
        deadline, ended, key = jumping.waited(count)[-1]

        assert key is None and deadline <= ended < deadline + LATE
        late.append(ended - deadline)
    programs.figure("the date jumps: waits of", SECONDS, "s ended at most", round(max(late) * 1000), "ms late")


def test_a_row_ends_a_wait_before_its_deadline(jumping):
    jumping.wait_until(b"plant", b"state", jumping.uptime() + 10 * LATE)

    jumping.set(b"plant", b"state", b"k", b"1")

    (deadline, ended, key), = jumping.waited()
    assert key == b"k" and ended < deadline


def test_idle_it_costs_no_processor_time(jumping, make_host):
    plain = make_host()
    for host, name in ((jumping, b"jumping"), (plain, b"plain")):
        host.watch(b"plant", b"state")
        host.share(b"plant", b"line-4", name)
        host.set(b"plant", b"state", name, b"1")
    assert jumping.gets_row(b"plant", b"state", b"plain", b"1")
    assert plain.gets_row(b"plant", b"state", b"jumping", b"1")
    start, used = jumping.uptime(), jumping.processor_seconds()

    jumping.wait_until(b"plant", b"empty", start + 2)
    (_, ended, _), = jumping.waited()

    used = jumping.processor_seconds() - used
    programs.figure("the date jumps: idle for", round(ended - start, 1), "s took", round(used, 2), "s of a processor")
    assert used < (ended - start) / 4
