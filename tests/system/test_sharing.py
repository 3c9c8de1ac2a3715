# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""What processes on one host see of each other through the loopback broadcast address."""

import wire


def test_rows_go_both_ways_between_two_processes_of_a_group(network, make_host):
    press, pump = make_host(), make_host()
    press.watch(b"plant", b"state")
    pump.watch(b"plant", b"state")

    press.share(b"plant", b"line-4", b"press")
    pump.share(b"plant", b"line-4", b"pump")
    press.set(b"plant", b"state", b"press", b"81")
    pump.set(b"plant", b"state", b"pump", b"on")

    assert pump.gets_row(b"plant", b"state", b"press", b"81")
    assert press.gets_row(b"plant", b"state", b"pump", b"on")


def test_rows_set_before_sharing_reach_who_comes_later(network, make_host):
    press, pump = make_host(), make_host()
    for number in range(100):
        press.set(b"plant", b"state", b"%d" % number, b"value %d" % number)
    press.share(b"plant", b"line-4", b"press")
    pump.watch(b"plant", b"state")

    pump.share(b"plant", b"line-4", b"pump")

    expected = {b"%d" % number: b"value %d" % number for number in range(100)}
    assert pump.eventually(lambda: pump.table(b"plant", b"state") == expected)


def test_the_last_value_arrives_however_fast_the_values_before_it_were_set(network, make_host):
    press, pump = make_host(), make_host()
    press.share(b"plant", b"line-4", b"press")
    pump.share(b"plant", b"line-4", b"pump")
    pump.watch(b"plant", b"state")

    for number in range(500):
        press.set(b"plant", b"state", b"count", b"%d" % number)

    assert pump.gets_row(b"plant", b"state", b"count", b"499")
    values = [int(value) for _, value in pump.rows(b"plant", b"state")]
    assert values == sorted(set(values))


def test_embedded_zero_bytes_travel_unharmed(network, make_host):
    press, pump = make_host(), make_host()
    press.share(b"pl\0ant", b"li\0ne", b"pr\0ess", b"\0")
    pump.watch(b"pl\0ant", b"st\0ate")

    pump.share(b"pl\0ant", b"li\0ne", b"pr\0ess", b"\0\0")  # Differs in its last zero byte alone.
    press.set(b"pl\0ant", b"st\0ate", b"k\0ey", b"\0value\0")

    assert pump.gets_row(b"pl\0ant", b"st\0ate", b"k\0ey", b"\0value\0")


def test_every_byte_value_travels_unharmed(network, make_host):
    press, pump = make_host(), make_host()
    every = bytes(range(256))
    press.share(b"plant", b"line-4", b"press")
    pump.share(b"plant", b"line-4", b"pump")
    pump.watch(b"plant", every[:255])

    press.set(b"plant", every[:255], every, every)

    assert pump.gets_row(b"plant", every[:255], every, every)


def test_a_table_name_of_300_bytes_arrives_cut_to_255(network, make_host):
    press, pump = make_host(), make_host()
    press.share(b"plant", b"line-4", b"press")
    pump.share(b"plant", b"line-4", b"pump")
    pump.watch(b"plant", b"n" * 255)

    press.set(b"plant", b"n" * 300, b"k", b"v")

    assert pump.gets_row(b"plant", b"n" * 255, b"k", b"v")


def test_other_groups_stay_apart(network, make_host):
    press, pump, stranger = make_host(), make_host(), make_host()
    for host, group in ((press, b"line-4"), (pump, b"line-4"), (stranger, b"line-5")):
        host.watch(b"plant", b"state")
        host.set(b"plant", b"state", group, b"here")
        host.share(b"plant", group, b"device %d" % host.pid)

    press.set(b"plant", b"state", b"marker", b"1")
    assert pump.gets_row(b"plant", b"state", b"marker", b"1")
    for host in (press, pump, stranger):
        # All threads of the first sharing have ended when this is done.
        host.share(b"plant", b"alone %d" % host.pid, b"device %d" % host.pid)

    assert stranger.table(b"plant", b"state") == {b"line-5": b"here"}
    assert b"line-5" not in press.table(b"plant", b"state")
    assert not stranger.logged(7, "tblsvr.fnd", ".*")


def test_two_databases_of_one_process_are_shared_side_by_side(network, make_host):
    press, pump = make_host(), make_host()
    for host, device in ((press, b"press"), (pump, b"pump")):
        host.watch(b"plant", b"state")
        host.watch(b"store", b"state")
        host.share(b"plant", b"line-4", device)
        host.share(b"store", b"line-4", device)

    press.set(b"plant", b"state", b"k", b"of plant")
    press.set(b"store", b"state", b"k", b"of store")

    assert pump.gets_row(b"plant", b"state", b"k", b"of plant")
    assert pump.gets_row(b"store", b"state", b"k", b"of store")
    assert pump.table(b"plant", b"state") == {b"k": b"of plant"}
    assert pump.table(b"store", b"state") == {b"k": b"of store"}


def test_a_member_that_shares_anew_is_met_again(network, make_host):
    press, pump = make_host(), make_host()
    for host, device in ((press, b"press"), (pump, b"pump")):
        host.watch(b"plant", b"state")
        host.share(b"plant", b"line-4", device)
    press.set(b"plant", b"state", b"k", b"before")
    assert pump.gets_row(b"plant", b"state", b"k", b"before")

    press.share(b"plant", b"line-4", b"press")
    press.do("network-changed")
    pump.do("network-changed")
    press.set(b"plant", b"state", b"k", b"after")
    pump.set(b"plant", b"state", b"l", b"after")

    assert pump.gets_row(b"plant", b"state", b"k", b"after")
    assert press.gets_row(b"plant", b"state", b"l", b"after")
    assert press.eventually(lambda: len(press.logged(7, "tblsvr.ctor", ".*")) == 2)


def test_a_member_may_move_to_another_group(network, make_host):
    press, pump = make_host(), make_host()
    press.share(b"plant", b"line-4", b"press")
    press.set(b"plant", b"state", b"k", b"v")
    pump.watch(b"plant", b"state")
    pump.share(b"plant", b"line-5", b"pump")

    pump.share(b"plant", b"line-4", b"pump")

    assert pump.gets_row(b"plant", b"state", b"k", b"v")


def test_a_process_that_is_killed_and_comes_again_is_met_again(network, make_host):
    press, first = make_host(), make_host()
    press.share(b"plant", b"line-4", b"press")
    press.set(b"plant", b"state", b"k", b"v")
    first.watch(b"plant", b"state")
    first.share(b"plant", b"line-4", b"pump")
    assert first.gets_row(b"plant", b"state", b"k", b"v")
    assert first.ends() == 0

    second = make_host()
    second.watch(b"plant", b"state")
    second.share(b"plant", b"line-4", b"pump")

    assert second.gets_row(b"plant", b"state", b"k", b"v")


def test_the_sharing_settings_are_reported(network, make_host):
    host = make_host()

    host.share(b"plant", b"gr\0oup", b"device", b"process")
    host.do("group", b"plant".hex())

    assert host.events == [f"group {b'gr'.hex()}00{b'oup'.hex()} {b'device'.hex()} {b'process'.hex()} 127.255.255.255"]


def test_the_broadcast_address_0_is_reported_as_255_255_255_255(network, make_host):
    host = make_host()

    host.share(b"plant", b"g", b"d", b"p", address="0.0.0.0")
    host.do("group", b"plant".hex())

    assert host.events == ["group 67 64 70 255.255.255.255"]


def test_a_database_that_is_not_shared_has_no_settings(network, make_host):
    host = make_host()

    host.do("group", b"plant".hex())
    host.set(b"plant", b"state", b"k", b"v")
    host.do("group", b"plant".hex())

    assert host.events == ["group none", "group none"]


def test_databases_and_tables_are_listed_once_each(network, make_host):
    host = make_host()
    host.do("watch-databases")
    host.do("watch-tables", b"plant".hex())

    host.set(b"plant", b"a", b"k", b"1")
    host.set(b"plant", b"a", b"k", b"2")
    host.set(b"plant", b"b", b"k", b"1")
    host.set(b"store", b"c", b"k", b"1")

    expected = [f"database {b'plant'.hex()} -", f"database {b'store'.hex()} -",
                f"table {b'plant'.hex()} {b'a'.hex()} -", f"table {b'plant'.hex()} {b'b'.hex()} -"]
    assert host.eventually(lambda: sorted(host.events) == expected)


def test_a_peer_whose_first_announcement_was_missed_is_met_through_its_connection(ether, make_host):
    host = make_host()
    host.watch(b"plant", b"state")
    host.share(b"plant", b"line-4", b"press")
    port = ether.port_of_next_announcement()
    peer = wire.Listener()  # Never announces itself.

    stream = wire.connect(port)
    stream.receive_record()
    stream.send(wire.answer(b"line-4", peer.port))
    back = peer.accept()
    back.send(wire.hello(b"plant", b"pump", b"q"))
    back.receive_record()
    back.send(wire.record(b"\x05statek", b"v"))

    assert host.gets_row(b"plant", b"state", b"k", b"v")
