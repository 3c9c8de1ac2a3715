# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Brokers, networks and sites that go away and come back: in the end the last value of each row is everywhere."""

import signal
import time

import pytest
from programs import SOAK, figure, private_memory
from sites import DATABASE, TABLE, topic

CUT_SECONDS = 60 if SOAK else 3  # After a minute both sides have given the connection up.
IMPORTED = b"plant@hall1"
LAST = b"the last value of all, 32 bytes."  # Of "overwrite"; see bench/peers/main.cpp.


def some_rows(count, value):
    return {b"row %d" % number: b"%s of %d" % (value, number) for number in range(count)}


@pytest.fixture
def make_pair(make_site, make_member, start_bridge):
    """A writer at a site, a reader at another, and their bridges, the first of which connects to this port."""

    def make(port=1883):
        one, two = make_site(b"hall1"), make_site(b"hall2")
        bridges = start_bridge(one, port=port), start_bridge(two, "--import", "hall1")
        writer, reader = make_member(one), make_member(two, IMPORTED)
        reader.watch(IMPORTED, TABLE)
        return (one, two), bridges, writer, reader

    return make


@pytest.mark.parametrize("persistence", [False, True])
def test_a_broker_that_is_killed_gets_all_rows_again(make_broker, make_client, make_pair, persistence, tmp_path):
    settings = ["persistence true", f"persistence_location {tmp_path}/", "autosave_interval 1"] if persistence else []
    broker = make_broker("listener 1883 0.0.0.0", "allow_anonymous true", *settings).start()
    _, bridges, writer, reader = make_pair()
    writer.set_all(TABLE, some_rows(500, b"first"))
    assert reader.shows(TABLE, some_rows(500, b"first"), IMPORTED)
    broker.kill()
    for bridge in bridges:
        assert bridge.says("The connection has ended to the broker at .*: it has ended the connection. Next attempt in")
    expected = {**some_rows(500, b"first"), **some_rows(250, b"second")}
    writer.set_all(TABLE, some_rows(250, b"second"))
    broker.start()
    assert reader.shows(TABLE, expected, IMPORTED)
    client = make_client(broker, "varnix/#")
    assert client.eventually(lambda: len(client.messages) == 502), len(client.messages)
    assert {name: payload for name, payload in client.messages.items() if "$" not in name} == {
        topic(b"hall1", key): value for key, value in expected.items()}


def test_a_broker_that_saves_its_memory_serves_a_site_whose_source_is_gone(make_broker, make_pair, make_site,
                                                                           make_member, start_bridge, tmp_path):
    broker = make_broker("listener 1883 0.0.0.0", "allow_anonymous true", "persistence true",
                         f"persistence_location {tmp_path}/").start()
    _, bridges, writer, reader = make_pair()
    writer.set_all(TABLE, some_rows(500, b"first"))
    assert reader.shows(TABLE, some_rows(500, b"first"), IMPORTED)
    bridges[0].stop()
    broker.stop()
    broker.start()
    late = make_site(b"hall3")
    start_bridge(late, "--import", "hall1")
    reader = make_member(late, IMPORTED)
    reader.watch(IMPORTED, TABLE)
    assert reader.shows(TABLE, some_rows(500, b"first"), IMPORTED)


@pytest.mark.parametrize("side", [0, 1])
def test_a_cut_under_writes_leaves_the_last_values(broker, make_pair, side):
    """At the side of the rows' site, and at that of the reader. A row that becomes empty meanwhile is one of them."""
    sites, bridges, writer, reader = make_pair()
    writer.set_all(TABLE, some_rows(500, b"first"))
    assert reader.shows(TABLE, some_rows(500, b"first"), IMPORTED)
    sites[side].cut()
    end = time.monotonic() + CUT_SECONDS
    turn = 0
    while time.monotonic() < end:
        turn += 1
        writer.set_all(TABLE, some_rows(500, b"%d" % turn))
    last = {**some_rows(500, b"last"), b"row 7": b"", b"row 8": b"8"}
    writer.set_all(TABLE, last)
    if SOAK:
        words = "(it does not answer|No route to host)"
        assert bridges[side].says(f"The connection has ended to the broker at .*: {words}"), bridges[side].lines
    sites[side].mend()
    # Brokers keep no empty message, so the bridge repeats it once a minute.
    assert reader.shows(TABLE, last, IMPORTED, seconds=120)


def test_a_bridge_that_starts_again_takes_up_where_it_was(broker, make_pair, start_bridge):
    sites, bridges, writer, reader = make_pair()
    writer.set_all(TABLE, some_rows(100, b"first"))
    assert reader.shows(TABLE, some_rows(100, b"first"), IMPORTED)
    for bridge in bridges:
        bridge.kill()
    writer.set_all(TABLE, some_rows(100, b"second"))
    start_bridge(sites[1], "--import", "hall1")
    start_bridge(sites[0])
    assert reader.shows(TABLE, some_rows(100, b"second"), IMPORTED)


def test_the_state_tells_whether_the_bridge_is_there(broker, make_client, make_site, start_bridge):
    hall = make_site(b"hall1")
    client = make_client(broker, "#")
    bridge = start_bridge(hall)
    assert client.gets("varnix/hall1/$state", b"1")
    bridge.stop()
    assert client.gets("varnix/hall1/$state", b"0")
    bridge = start_bridge(hall)
    assert client.gets("varnix/hall1/$state", b"1")
    bridge.kill()
    assert client.gets("varnix/hall1/$state", b"0")
    assert [payload for _, payload in client.history] == [b"1", b"0", b"1", b"0"]
    late = make_client(broker, "#")
    assert late.gets("varnix/hall1/$state", b"0")


def test_the_state_is_0_also_when_the_broker_is_slow_to_hear_of_the_end(broker, make_client, make_proxy, make_pair):
    proxy = make_proxy(broker)
    client = make_client(broker, "varnix/hall1/$state")
    _, bridges, writer, _ = make_pair(port=proxy.port)
    assert client.gets("varnix/hall1/$state", b"1")
    assert bridges[0].says("All rows are published")  # It has the acknowledgement of its state.
    proxy.hold_acknowledgements()
    writer.set_all(TABLE, some_rows(100, b"first"))
    assert proxy.has_unacknowledged(64)  # There is no room for more.
    assert bridges[0].stop() == 0
    assert client.gets("varnix/hall1/$state", b"0")


def test_a_broker_that_has_the_state_of_an_earlier_bridge_on_its_disk_ends_none(make_broker, make_pair, start_bridge,
                                                                                tmp_path):
    broker = make_broker("listener 1883 0.0.0.0", "allow_anonymous true", "persistence true",
                         f"persistence_location {tmp_path}/").start()
    sites, bridges, writer, reader = make_pair()
    writer.set(DATABASE, TABLE, b"row", b"first")
    assert reader.gets(b"row", b"first", database=IMPORTED)
    broker.send(signal.SIGUSR1)
    assert broker.says("Saving in-memory database")
    bridges[0].kill()
    bridge = start_bridge(sites[0])
    assert bridge.says("All rows are published")
    broker.kill()  # What it has since then is lost.
    broker.start()
    assert bridge.says("All rows are published", 2), bridge.lines
    writer.set(DATABASE, TABLE, b"row", b"last")
    assert reader.gets(b"row", b"last", database=IMPORTED)


def test_a_row_that_is_set_a_million_times_costs_nothing_while_the_broker_is_slow(broker, make_client, make_site,
                                                                                  make_writer, start_bridge):
    hall = make_site(b"hall1")
    bridge = start_bridge(hall)
    client = make_client(broker, "#")
    writer = make_writer(hall, "plant/data")
    assert writer.ask("overwrite 1000") and client.gets(topic(b"hall1", b"overwritten-row.", b"data"), LAST)
    before = private_memory(bridge.pid)
    broker.send(signal.SIGSTOP)
    writer.ask("overwrite 1000000")
    grown = private_memory(bridge.pid) - before
    broker.send(signal.SIGCONT)
    figure(f"a row is set 1,000,000 times while the broker is stopped: {grown / 1024:.0f} KiB more")
    assert grown < 1 << 20
    arrived = len(client.history)
    writer.ask("fill 0 1")
    assert client.gets(topic(b"hall1", b"r000000000000000", b"data"), b"00000000000000000000............")
    assert client.gets(topic(b"hall1", b"overwritten-row.", b"data"), LAST)
    assert len(client.history) < arrived + 100_000


def test_no_more_than_64_messages_are_without_an_acknowledgement(broker, make_proxy, make_pair):
    proxy = make_proxy(broker)
    _, _, writer, reader = make_pair(port=proxy.port)
    writer.set(DATABASE, TABLE, b"row", b"first")
    assert reader.gets(b"row", b"first", database=IMPORTED)
    proxy.hold_acknowledgements()
    for turn in range(10):
        writer.set_all(TABLE, some_rows(200, b"%d" % turn))
    assert proxy.has_unacknowledged(64)
    proxy.hold_acknowledgements(False)
    assert reader.shows(TABLE, {**some_rows(200, b"9"), b"row": b"first"}, IMPORTED)
    assert proxy.most_unacknowledged == 64
