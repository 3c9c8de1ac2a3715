# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Rows on their way: from the members of one site through a broker to those of another."""

import random

from programs import EMULATOR, SEED
from sites import DATABASE, TABLE, topic

MANY = 2_000 if EMULATOR else 20_000  # Emulated, they show that widths and byte orders are right.


def random_name(chance, most):
    """Any bytes; the length is small, mostly."""
    return chance.randbytes(min(most, int(chance.expovariate(0.15)) + 1))


def some_rows(prefix, count, value=b"%d"):
    return {b"%s/%d" % (prefix, number): value % number for number in range(count)}


def test_a_row_is_a_retained_message_and_the_bridge_has_a_state(broker, make_client, make_site, make_member,
                                                                start_bridge):
    hall = make_site(b"hall1")
    member = make_member(hall)
    member.set(DATABASE, b"status of/all", b"temperature \xff", b"81\0\xff")
    start_bridge(hall)
    early = make_client(broker, "#")
    assert early.gets("varnix/hall1/plant/status%20of%2Fall/temperature%20%FF", b"81\0\xff")
    assert early.gets("varnix/hall1/$state", b"1")
    late = make_client(broker, "#")
    assert late.gets("varnix/hall1/plant/status%20of%2Fall/temperature%20%FF", b"81\0\xff")
    assert late.gets("varnix/hall1/$state", b"1")
    assert len(late.messages) == 2


def test_two_sites_of_three_members_converge(broker, make_site, make_member, start_bridge):
    sites = [make_site(b"hall1"), make_site(b"hall2")]
    members = {site: [make_member(site, DATABASE, site_of(other)) for _ in range(3)]
               for site, other in zip(sites, reversed(sites))}
    for site, other in zip(sites, reversed(sites)):
        for member in members[site]:
            member.watch(DATABASE, TABLE)
            member.watch(site_of(other), TABLE)
        start_bridge(site, "--import", other.name)
    rows = {site: {} for site in sites}
    for turn in (1, 2):  # The second time all values change.
        for site in sites:
            for number, member in enumerate(members[site]):
                own = some_rows(b"%s/%d" % (site.name, number), 100, b"%%d in turn %d" % turn)
                rows[site].update(own)
                member.set_all(TABLE, own)
        for site, other in zip(sites, reversed(sites)):
            for member in members[site]:
                assert member.shows(TABLE, rows[site])
                assert member.shows(TABLE, rows[other], site_of(other))


def site_of(other):
    return DATABASE + b"@" + other.name


def test_tables_and_members_that_come_later_are_published_too(broker, make_client, make_site, make_member,
                                                              start_bridge):
    hall = make_site(b"hall1")
    start_bridge(hall)
    client = make_client(broker, "#")
    first = make_member(hall)
    for number in range(20):
        first.set(DATABASE, b"table %d" % number, b"key", b"of the first")
    assert client.gets(topic(b"hall1", b"key", b"table 19"), b"of the first")
    make_member(hall).set(DATABASE, b"table 20", b"key", b"of the second")
    assert client.gets(topic(b"hall1", b"key", b"table 20"), b"of the second")
    assert client.eventually(lambda: all(topic(b"hall1", b"key", b"table %d" % number) in client.messages
                                         for number in range(21)))


def test_every_byte_goes_there_and_back(broker, make_site, make_member, start_bridge):
    """Two sites of any name with tables, keys and values of any bytes."""
    chance = random.Random(SEED)
    print("seed", SEED)
    names = [random_name(chance, 40).replace(b"@", b"a").replace(b"\0", b"0") for _ in range(3)]
    database, one, two = names[0], make_site(b"\xff/+#$%" + names[1]), make_site(b"\x01 " + names[2])
    start_bridge(one, "--import", two.name, databases=[database])
    start_bridge(two, "--import", one.name, databases=[database])
    there, back = database + b"@" + one.name, database + b"@" + two.name
    left, right = make_member(one, database, back), make_member(two, database, there)
    every_byte = bytes(range(256))
    tables = [b"", every_byte[:255], every_byte[1:]] + [random_name(chance, 255) for _ in range(7)]
    expected = {}
    for table in tables:
        rows = {b"": b"the empty key", every_byte: every_byte, every_byte[::-1]: b"", b"%": b"%", b"/": b"#",
                chance.randbytes(4094 - len(table)): b"the longest key"}
        while len(rows) < MANY // 20:
            rows[random_name(chance, 1000)] = random_name(chance, 2000) if chance.random() < 0.95 else b""
        expected[table] = rows
    expected[tables[0]][b"the largest value"] = chance.randbytes(1_048_575)
    for member, imported in ((left, back), (right, there)):
        for table, rows in expected.items():
            member.watch(imported, table)
            member.set_all(table, rows, database)
        member.set(database, b"the last", b"row", b"lets an empty value leave")
    for member, imported in ((left, back), (right, there)):
        for table, rows in expected.items():
            assert member.shows(table, rows, imported)


def test_twenty_thousand_rows_arrive_also_at_a_site_that_comes_late(broker, make_site, make_member, start_bridge):
    one, early, late = make_site(b"hall1"), make_site(b"hall2"), make_site(b"hall3")
    rows = some_rows(b"row", MANY)
    writer = make_member(one)
    for site in (one, early):
        start_bridge(site, *(() if site is one else ("--import", "hall1")))
    reader = make_member(early, b"plant@hall1")
    reader.watch(b"plant@hall1", TABLE)
    writer.set_all(TABLE, rows)
    assert reader.shows(TABLE, rows, b"plant@hall1")
    start_bridge(late, "--import", "*")
    reader = make_member(late, b"plant@hall1")
    reader.watch(b"plant@hall1", TABLE)
    assert reader.shows(TABLE, rows, b"plant@hall1")


def test_an_empty_value_arrives_and_leaves_at_once(broker, make_client, make_site, make_member, start_bridge):
    hall = make_site(b"hall2")
    reader = make_member(hall, b"plant@hall1")
    reader.watch(b"plant@hall1", TABLE)
    bridge = start_bridge(hall, "--import", "hall1")
    assert bridge.says("The broker sends us")
    client = make_client(broker)
    client.publish(topic(b"hall1", b"row"), b"full")
    assert reader.gets(b"row", b"full", database=b"plant@hall1")
    client.publish(topic(b"hall1", b"row"), b"")
    # Long before the bridge has run for a minute: then it lets everything leave in any case.
    assert reader.gets(b"row", b"", database=b"plant@hall1", seconds=30)


def test_a_table_in_which_something_always_changes_keeps_no_other_waiting(broker, make_client, make_site, make_member,
                                                                          make_writer, start_bridge):
    hall = make_site(b"hall1")
    start_bridge(hall)
    client = make_client(broker, "varnix/hall1/plant/quiet/+")
    busy = make_writer(hall, "plant/busy")
    member = make_member(hall)
    busy.tell("overwrite 2000000000")  # For longer than any deadline.
    rows = some_rows(b"row", 500)
    member.set_all(b"quiet", rows)
    assert client.eventually(lambda: len(client.messages) == 500)
    assert not busy.has_answered()


def test_more_than_one_database_goes_over_one_bridge(broker, make_site, make_member, start_bridge):
    one, two = make_site(b"hall1"), make_site(b"hall2")
    start_bridge(one, databases=[b"plant", b"office"])
    start_bridge(two, "--import", "hall1", databases=[b"plant", b"office"])
    writer, reader = make_member(one, b"plant", b"office"), make_member(two, b"plant@hall1", b"office@hall1")
    for database in (b"plant", b"office"):
        reader.watch(database + b"@hall1", TABLE)
        writer.set(database, TABLE, b"name", database)
    for database in (b"plant", b"office"):
        assert reader.gets(b"name", database, database=database + b"@hall1")
        assert reader.table(database + b"@hall1", TABLE) == {b"name": database}


def test_a_bridge_that_only_reads_publishes_nothing(broker, make_client, make_site, make_member, start_bridge):
    one, two = make_site(b"hall1"), make_site(b"hall2")
    reading = start_bridge(two, "--import", "hall1", "--read-only")
    member = make_member(two, b"plant", b"plant@hall1")
    member.watch(b"plant@hall1", TABLE)
    member.set(b"plant", TABLE, b"mine", b"stays here")
    start_bridge(one)
    make_member(one).set(b"plant", TABLE, b"row", b"arrives")
    assert member.gets(b"row", b"arrives", database=b"plant@hall1")
    reading.stop()
    client = make_client(broker, "#")
    assert client.gets(topic(b"hall1", b"row"), b"arrives")
    assert client.gets("varnix/hall1/$state", b"1")
    assert not [name for name in client.messages if name.startswith("varnix/hall2")]
