# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Every byte of a table stream, seen by a peer that shares no code with the library."""

import concurrent.futures
import struct

import pytest

import wire
from handshakes import GROUP, introduce, receive_from, send_to


@pytest.fixture
def host(ether, make_host):
    """Shares the database "plant" as press::p in group line-4; its identity is the bytes \\x05pressp."""
    made = make_host()
    made.share(b"plant", GROUP, b"press")
    made.port = ether.port_of_next_announcement()
    return made


# The host sends.


def test_the_sending_side_begins_with_its_database_and_identity(host):
    stream = wire.connect(host.port)

    assert stream.receive(16) == b"\x00\x50\x00\x07" b"plant" b"\x05press" b"p"


def test_a_row_is_sent_under_its_combined_key(host):
    stream = receive_from(host)

    host.set(b"plant", b"cfg", b"mode", b"on")

    assert stream.receive(14) == b"\x00\x80\x00\x02" b"\x03cfgmode" b"on"


def test_rows_set_before_sharing_are_sent_in_the_order_of_their_last_change(ether, make_host):
    host = make_host()
    for key, value in ((b"a", b"1"), (b"b", b"2"), (b"c", b"3"), (b"a", b"4")):
        host.set(b"plant", b"t", key, value)
    host.share(b"plant", GROUP, b"press")
    host.port = ether.port_of_next_announcement()

    stream = receive_from(host)

    assert stream.receive(24) == (b"\x00\x30\x00\x01" b"\x01tb" b"2"
                                  b"\x00\x30\x00\x01" b"\x01tc" b"3"
                                  b"\x00\x30\x00\x01" b"\x01ta" b"4")


def test_a_row_set_to_the_value_it_has_is_not_sent_again(host):
    stream = receive_from(host)

    host.set(b"plant", b"t", b"a", b"1")
    assert stream.receive_record() == (b"\x01ta", b"1")
    host.set(b"plant", b"t", b"a", b"1")
    host.set(b"plant", b"t", b"b", b"2")

    assert stream.receive_record() == (b"\x01tb", b"2")


def test_zero_bytes_of_names_keys_and_values_are_sent(host):
    stream = receive_from(host)

    host.set(b"plant", b"\0t\0", b"\0k\0", b"\0v\0")

    assert stream.receive(14) == b"\x00\x70\x00\x03" b"\x03\0t\0" b"\0k\0" b"\0v\0"


def test_a_table_name_of_300_bytes_is_sent_cut_to_255(host):
    stream = receive_from(host)

    host.set(b"plant", b"n" * 300, b"k", b"v")

    assert stream.receive(4 + 257 + 1) == b"\x10\x10\x00\x01" b"\xff" + b"n" * 255 + b"k" b"v"


def test_the_longest_combined_key_is_sent_whole(host):
    stream = receive_from(host)

    host.set(b"plant", b"t", b"k" * 4093, b"v")

    assert stream.receive(4 + 4095 + 1) == b"\xff\xf0\x00\x01" b"\x01t" + b"k" * 4093 + b"v"


def test_a_longer_combined_key_is_cut_modulo_4096(host):
    stream = receive_from(host)

    host.set(b"plant", b"t", b"abcdef" + b"k" * 4091, b"v")  # A combined key of 4,099 bytes.

    assert stream.receive(4 + 3 + 1) == b"\x00\x30\x00\x01" b"\x01ta" b"v"


def test_a_row_with_an_empty_value_leaves_with_the_next_row(host):
    stream = receive_from(host)
    with concurrent.futures.ThreadPoolExecutor() as reader:
        first_piece = reader.submit(stream.socket.recv, 65536)

        host.set(b"plant", b"t", b"a", b"")
        assert host.logs(7, "tblsndr.strm", r"TableSender\(0x[0-9a-f]+\) sending t::a \(0 bytes\)")
        host.set(b"plant", b"t", b"b", b"2")

        assert first_piece.result() == b"\x00\x30\x00\x00" b"\x01ta" b"\x00\x30\x00\x01" b"\x01tb" b"2"


def test_a_peer_of_the_own_group_is_connected_back(host):
    peer = wire.Listener()

    receive_from(host, group=GROUP, port=peer.port)
    back = peer.accept()
    back.send(wire.hello(b"plant", b"pump", b"q"))

    assert back.receive(12) == b"\x00\x60\x00\x02" b"line-4" + struct.pack(">H", host.port)


def test_a_peer_of_another_group_is_sent_the_rows_and_not_connected_back(host):
    peer = wire.Listener()

    stream = receive_from(host, group=b"line-5", port=peer.port)
    host.set(b"plant", b"t", b"k", b"v")
    received = stream.receive_record()
    host.share(b"plant", GROUP, b"press")  # All threads of the first sharing have ended when this is done.

    assert received == (b"\x01tk", b"v")
    assert host.logs(7, "tblsndr.getgrp", rf'.* received group="line-5" port={peer.port}')
    assert not host.logged(7, "tblrcvr.ctor", f".* for plant:2130706433:{peer.port} starting")


def test_the_port_in_the_answer_is_read_in_network_byte_order(host):
    receive_from(host, group=b"line-5", port=0x1234)

    assert host.logs(7, "tblsndr.getgrp", r'TableSender\(0x[0-9a-f]+\) received group="line-5" port=4660')


@pytest.mark.parametrize("port_bytes", [b"", b"\x00", b"\x00\x09\x00"])
def test_an_answer_whose_port_is_not_2_bytes_long_ends_the_stream_without_rows(host, port_bytes):
    host.set(b"plant", b"t", b"k", b"v")
    stream = wire.connect(host.port)
    stream.receive_record()

    stream.send(wire.record(GROUP, port_bytes))

    assert stream.is_closed()


def test_a_peer_that_closes_is_noticed_while_no_row_is_sent(host):
    stream = receive_from(host)
    assert host.logs(7, "tblsndr.getgrp", ".*")

    stream.close()

    assert host.logs(7, "tblsndr.dtor", r"TableSender\(0x[0-9a-f]+\) stopping")


def test_a_peer_that_sends_after_its_answer_loses_its_stream(host):
    stream = receive_from(host)
    assert host.logs(7, "tblsndr.getgrp", ".*")  # What comes with the answer would be read with it.

    stream.send(b"x")

    assert stream.is_closed()


def test_sharing_anew_ends_the_streams_of_before(host):
    sending, silent = receive_from(host), wire.connect(host.port)
    silent.receive_record()

    host.share(b"plant", GROUP, b"press")

    assert sending.is_closed()
    assert silent.is_closed()


# The host receives.


def test_the_receiving_side_answers_with_its_group_and_port(host, ether):
    stream = introduce(ether)

    assert stream.receive(12) == b"\x00\x60\x00\x02" b"line-4" + struct.pack(">H", host.port)


def test_a_received_row_is_reported_by_a_watcher_of_its_table(host, ether):
    host.watch(b"plant", b"cfg")

    stream = send_to(ether)
    stream.send(b"\x00\x80\x00\x02" b"\x03cfgmode" b"on")

    assert host.gets_row(b"plant", b"cfg", b"mode", b"on")


def test_a_record_that_arrives_byte_by_byte_is_one_row(host, ether):
    host.watch(b"plant", b"cfg")
    stream = send_to(ether)
    stream.socket.setsockopt(6, 1, 1)  # TCP_NODELAY

    for byte in b"\x00\x80\x00\x02" b"\x03cfgmode" b"on":
        stream.send(bytes([byte]))

    assert host.gets_row(b"plant", b"cfg", b"mode", b"on")


def test_received_zero_bytes_are_kept(host, ether):
    host.watch(b"plant", b"\0t\0")

    stream = send_to(ether)
    stream.send(b"\x00\x70\x00\x03" b"\x03\0t\0" b"\0k\0" b"\0v\0")

    assert host.gets_row(b"plant", b"\0t\0", b"\0k\0", b"\0v\0")


def test_received_empty_values_are_kept(host, ether):
    host.watch(b"plant", b"t")

    stream = send_to(ether)
    stream.send(b"\x00\x30\x00\x00" b"\x01tk")

    assert host.gets_row(b"plant", b"t", b"k", b"")


@pytest.mark.parametrize("key", [b"", b"\x00", b"\x0aabcde", b"\x01", b"\xff"])
def test_rows_under_a_malformed_key_go_to_the_empty_key_of_the_table_without_a_name(host, ether, key):
    host.watch(b"plant", b"")

    stream = send_to(ether)
    stream.send(wire.record(key, b"v"))

    assert host.gets_row(b"plant", b"", b"", b"v")


def test_a_received_row_makes_its_table_known(host, ether):
    host.do("watch-tables", b"plant".hex())

    stream = send_to(ether)
    stream.send(wire.record(b"\x03cfgmode", b"on"))

    assert host.eventually(lambda: f"table {b'plant'.hex()} {b'cfg'.hex()} -" in host.events)


def test_received_rows_are_not_sent_on_to_other_peers(host, ether):
    receiving = receive_from(host)
    host.watch(b"plant", b"t")

    stream = send_to(ether)
    stream.send(wire.record(b"\x01tfar", b"1"))
    assert host.gets_row(b"plant", b"t", b"far", b"1")
    host.set(b"plant", b"t", b"near", b"2")

    assert receiving.receive_record() == (b"\x01tnear", b"2")


def test_a_peer_with_the_own_identity_is_refused(host, ether):
    stream = introduce(ether, identity=b"\x05press" b"p")

    assert stream.is_closed()
    assert host.logs(7, "tblrcvr.gotuid", r"TableReceiver\(0x[0-9a-f]+\) got uid: press::p")


def test_a_peer_of_another_database_is_refused(host, ether):
    stream = introduce(ether, database=b"plan")

    assert stream.is_closed()
    assert host.logs(7, "tblsvr.fnd.rcv.abort.svr",
                     r"TableServer for press::p::plant\(0x[0-9a-f]+\) aborting ReceiveTable for 2130706433:[0-9]+ "
                     "because connected to wrong table server")


def test_a_second_stream_of_a_peer_is_refused_and_the_first_goes_on(host, ether):
    host.watch(b"plant", b"t")
    first = send_to(ether)

    second = introduce(ether)

    assert second.is_closed()
    first.send(wire.record(b"\x01tk", b"v"))
    assert host.gets_row(b"plant", b"t", b"k", b"v")


def test_a_peer_whose_stream_has_ended_may_come_again(host, ether):
    host.watch(b"plant", b"t")
    first = send_to(ether)
    first.close()
    assert host.logs(7, "tblrcvr.dtor", r"TableReceiver\(0x[0-9a-f]+\) stopping")
    assert host.logs(6, "tblsvr.fnd.rcv.err", ".*")

    second = send_to(ether)
    second.send(wire.record(b"\x01tk", b"v"))

    assert host.gets_row(b"plant", b"t", b"k", b"v")


@pytest.mark.parametrize("identity", [b"", b"\x00", b"\xff", b"\x09pump"])
def test_a_malformed_identity_is_taken_as_it_is(host, ether, identity):
    host.watch(b"plant", b"t")

    stream = send_to(ether, identity=identity)
    stream.send(wire.record(b"\x01tk", b"v"))

    assert host.gets_row(b"plant", b"t", b"k", b"v")


def test_a_stream_that_ends_amid_a_record_changes_nothing(host, ether):
    host.watch(b"plant", b"t")
    broken = send_to(ether)
    broken.send(wire.record(b"\x01tk", b"half a value")[:-3])
    broken.close()

    stream = send_to(ether, identity=b"\x05otherq")
    stream.send(wire.record(b"\x01tk", b"whole"))

    assert host.gets_row(b"plant", b"t", b"k", b"whole")
    assert host.rows(b"plant", b"t") == [(b"k", b"whole")]


def test_a_peer_that_drops_the_connection_is_tried_again(host, ether):
    peer = wire.Listener()
    ether.announce(peer.port, GROUP)

    peer.accept().close()

    again = peer.accept()
    again.send(wire.hello(b"plant", b"pump", b"q"))
    assert again.receive(12)[:10] == b"\x00\x60\x00\x02" b"line-4"
