# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""What a broker refuses, and what a bridge refuses: named in the log, left out, and everything else goes on."""

import random

import pytest
from brokers import PUBLISH
from programs import SEED, figure, private_memory
from sites import DATABASE, GROUP, TABLE, topic

IMPORTED = b"plant@hall1"


@pytest.fixture
def make_reader(make_site, make_member, start_bridge):
    """A site that imports, its bridge, and a member that watches what comes from hall1."""

    def make(*arguments, **options):
        hall = make_site(b"hall2")
        bridge = start_bridge(hall, *(arguments or ("--import", "hall1")), **options)
        reader = make_member(hall, IMPORTED)
        reader.watch(IMPORTED, TABLE)
        assert bridge.says("The broker sends us")
        return bridge, reader

    return make


@pytest.fixture
def make_writer_site(make_site, make_member, start_bridge):
    def make(*arguments, **options):
        hall = make_site(b"hall1")
        return start_bridge(hall, *arguments, **options), make_member(hall)

    return make


def test_a_row_for_which_the_broker_cuts_us_off_is_named_and_left_out(broker, make_proxy, make_client,
                                                                      make_writer_site):
    proxy = make_proxy(broker, passes=lambda packet: packet.kind != PUBLISH or "poison" not in packet.topic())
    bridge, writer = make_writer_site(port=proxy.port)
    client = make_client(broker, "varnix/hall1/plant/+/+")
    rows = {b"row %d" % number: b"first" for number in range(200)}
    writer.set_all(TABLE, {**rows, b"a poison": b"1", b"another/poison": b"2"})
    for name in ("plant/status/a%20poison", "plant/status/another%2Fpoison"):
        assert bridge.says(f"error: The broker ends the connection when it gets the row '{name}'"), bridge.lines
    rows = {key: b"second" for key in rows}
    writer.set_all(TABLE, {**rows, b"a poison": b"3"})
    expected = {topic(b"hall1", key): value for key, value in rows.items()}
    assert client.eventually(lambda: client.messages == expected)
    assert bridge.count("The broker ends the connection") == 2
    assert len(proxy.relays) <= 7


def test_a_broker_that_ends_three_times_while_rows_are_underway_convicts_none(make_broker, make_proxy, make_client,
                                                                             make_writer_site):
    broker = make_broker().start()
    proxy = make_proxy(broker)
    bridge, writer = make_writer_site(port=proxy.port)
    for turn in range(3):
        assert bridge.says("All rows are published", turn + 1)
        proxy.hold_acknowledgements()
        rows = {b"row %d" % number: b"%d" % turn for number in range(100)}
        writer.set_all(TABLE, rows)
        assert proxy.has_unacknowledged(64)
        broker.kill()
        proxy.relays[-1].cut()
        assert bridge.says("The connection has ended", turn + 1)
        proxy.hold_acknowledgements(False)
        broker.start()
        client = make_client(broker, "varnix/hall1/plant/+/+")
        expected = {topic(b"hall1", key): value for key, value in rows.items()}
        assert client.eventually(lambda: client.messages == expected)
    assert bridge.count("left out") == 0


def test_a_row_that_is_too_large_for_the_broker_is_named(make_broker, make_client, make_writer_site):
    broker = make_broker("listener 1883 0.0.0.0", "allow_anonymous true", "max_packet_size 2000").start()
    bridge, writer = make_writer_site()
    client = make_client(broker, "varnix/#")
    writer.set(DATABASE, TABLE, b"large", bytes(5000))
    assert bridge.says("The broker does not get the row 'plant/status/large': it is larger than the broker takes")
    writer.set(DATABASE, TABLE, b"small", b"goes on")
    assert client.gets(topic(b"hall1", b"small"), b"goes on")
    writer.set(DATABASE, TABLE, b"large", b"is small now")
    assert client.gets(topic(b"hall1", b"large"), b"is small now")
    assert bridge.count("ended") == 0


def test_a_broker_that_refuses_a_row_and_cuts_us_off_gets_all_others(make_broker, make_client, make_writer_site):
    """As mosquitto does with a message beyond its message_size_limit."""
    broker = make_broker("listener 1883 0.0.0.0", "allow_anonymous true", "message_size_limit 1000").start()
    bridge, writer = make_writer_site()
    client = make_client(broker, "varnix/#")
    writer.set_all(TABLE, {b"row %d" % number: bytes(5000 if number in (50, 60) else 500) for number in range(100)})
    for number in (50, 60):
        name = f"'plant/status/row%20{number}'"
        assert bridge.says(f"The broker does not get the row {name}: it is larger than the broker takes")
        assert bridge.says(f"error: The broker ends the connection when it gets the row {name}"), bridge.lines
    writer.set(DATABASE, TABLE, b"row 0", b"goes on")
    assert client.gets(topic(b"hall1", b"row 0"), b"goes on")
    assert client.eventually(lambda: len(client.messages) == 99)
    assert bridge.count("The broker ends the connection") == 2


def test_a_user_who_may_not_write_and_read_everything_is_told_what(make_broker, make_client, make_writer_site,
                                                                   tmp_path):
    (tmp_path / "acl").write_text("topic write varnix/hall1/plant/status/+\ntopic write varnix/hall1/$state\n")
    broker = make_broker("listener 1883 0.0.0.0", "allow_anonymous true", f"acl_file {tmp_path}/acl").start()
    bridge, writer = make_writer_site("--import", "hall2")
    writer.set(DATABASE, b"secret", b"row", b"1")
    assert bridge.says("The broker does not get the row 'plant/secret/row': we are not allowed to")
    writer.set(DATABASE, TABLE, b"row", b"1")
    assert bridge.says("All rows are published: ")
    broker.stop()
    assert bridge.says("ended the connection|shutting down")


def test_rows_beyond_the_limits_are_refused_and_never_cut(broker, make_client, make_reader):
    bridge, reader = make_reader()
    client = make_client(broker)
    client.publish(topic(b"hall1", b"large"), bytes(1_048_576))
    assert bridge.says(r"left out: its value has 1048576 bytes, more than 1048575\. Its topic is "
                       r"'varnix/hall1/plant/status/large'")
    client.publish(topic(b"hall1", b"huge"), bytes(10_000_000))
    assert bridge.says("left out: its value has 10000000 bytes")
    client.publish(topic(b"hall1", b"k" * 4089), b"1")
    assert bridge.says("left out: 1 and its table and its key have 4096 bytes, more than 4095")
    client.publish(topic(b"hall1", b"row", b"t" * 256), b"1")
    assert bridge.says("left out: the name of its table has 256 bytes, more than 255")
    client.publish(topic(b"hall1", b"row", b"varnix-mqtt"), b"1")
    assert bridge.says("left out: bridges have a table of this name to themselves")
    client.publish(topic(b"hall1", b"k" * 4088), b"fits")
    client.publish(topic(b"hall1", b"largest"), bytes(1_048_575))
    assert reader.shows(TABLE, {b"k" * 4088: b"fits", b"largest": bytes(1_048_575)}, IMPORTED)


def test_a_flood_of_foreign_topics_costs_a_few_lines_and_no_memory(broker, make_client, make_reader):
    bridge, reader = make_reader("--import", "hall1", "--import", "*")
    client = make_client(broker)
    chance = random.Random(SEED)
    print("seed", SEED)
    wrong = ["%z", "%4z", "%zz", "%41", "%2f", "ä", "a b", "a'b", "%E4%z"]
    client.publish_and_wait(topic(b"hall1", b"row"), b"first")
    assert reader.gets(b"row", b"first", database=IMPORTED)
    before = None
    for number in range(20_000):
        parts = [f"hall{number % 3}", "plant", f"t{number}", f"k{number}"]
        parts[chance.choice((0, 2, 3))] = chance.choice(wrong) + str(number)
        client.publish("varnix/" + "/".join(parts), b"foreign", retain=False)
        if number == 5000:
            client.publish_and_wait(topic(b"hall1", b"row"), b"second")
            assert reader.gets(b"row", b"second", database=IMPORTED)
            before = private_memory(bridge.pid)
    client.publish_and_wait(topic(b"hall1", b"row"), b"last")
    assert reader.gets(b"row", b"last", database=IMPORTED)
    assert bridge.says(r"warning: A message is left out: it names no row\. Its topic is 'varnix/")
    assert bridge.says(r"warning: \d+ more messages were left out")
    grown = private_memory(bridge.pid) - before
    figure(f"15,000 foreign topics: {grown / 1024:.0f} KiB more, {len(bridge.lines)} lines in all")
    assert grown < 1 << 20
    assert len(bridge.lines) < 100
    assert all(line.isprintable() and line.isascii() for line in bridge.lines)
    assert reader.table(IMPORTED, TABLE) == {b"row": b"last"}


def test_sites_beyond_the_descriptors_are_left_out_and_the_others_go_on(broker, make_client, make_reader):
    bridge, reader = make_reader("--import", "*", limit=256)
    client = make_client(broker)
    client.publish(topic(b"hall1", b"row"), b"first")
    assert reader.gets(b"row", b"first", database=IMPORTED)
    for number in range(2, 200):
        client.publish(topic(b"site %d" % number, b"row"), b"1")
    assert bridge.says("left out: there are 8 databases, and more are not imported")
    client.publish(topic(b"hall1", b"row"), b"last")
    assert reader.gets(b"row", b"last", database=IMPORTED)


def test_databases_beyond_the_descriptors_are_named_and_the_others_go_on(broker, make_client, make_writer_site):
    databases = [b"db %d" % number for number in range(10)]
    bridge, writer = make_writer_site(databases=databases, limit=256)
    for number in (8, 9):
        assert bridge.says(f"error: The database 'db {number}' is not published: there are 8 already")
    writer.share(databases[0], GROUP, b"writer")
    writer.do("network-changed")
    writer.set(databases[0], TABLE, b"row", b"goes on")
    assert make_client(broker, "#").gets(topic(b"hall1", b"row", database=databases[0]), b"goes on")


def test_our_own_table_is_not_published(broker, make_client, make_writer_site):
    bridge, writer = make_writer_site()
    client = make_client(broker, "varnix/hall1/plant/+/+")
    writer.set(DATABASE, b"varnix-mqtt", b"row", b"1")
    assert bridge.says("The table 'varnix-mqtt' of database 'plant' is not published")
    writer.set(DATABASE, TABLE, b"row", b"1")
    assert client.gets(topic(b"hall1", b"row"), b"1")
    assert len(client.messages) == 1
