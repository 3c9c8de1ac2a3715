# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Streams that are made by chance and hostile ones."""

import random

import pytest

import captures
import frames
import programs
import tshark
from wire import answer, hello, record

NAMES = ("tcp.stream", "varnix.record", "varnix.table", "varnix.key", "varnix.value")


@pytest.fixture
def dice():
    print("seed:", programs.SEED)
    return random.Random(programs.SEED)


def rows_shown(capture, *options):
    """By TCP stream: the (table, key, value) of its rows."""
    rows = {}
    for (stream,), records, *texts in tshark.fields(capture, NAMES, *options):
        if stream and records[0] and int(records[0]) > 2:
            shown = zip(*([tshark.bytes_of(text) for text in column] for column in texts), strict=True)
            rows.setdefault(int(stream), []).extend(shown)
    return rows


def random_rows(dice):
    def word(most):
        return bytes(dice.choice(b"ab\0\n\\x\x7f\x80\xc3\xa4\xff") for _ in range(dice.randrange(most)))

    return [(word(9), word(9), word(dice.choice((2, 40, 3000)))) for _ in range(dice.randrange(1, 25))]


def random_pieces(dice, data):
    most = dice.choice((1, 3, 50, 1460, 30000)) if len(data) < 2000 else dice.choice((50, 1460, 30000))
    while data:
        size = dice.randint(1, most)
        yield data[:size]
        data = data[size:]


@pytest.fixture
def cut(tmp_path, dice):
    """(file, rows by stream): streams whose records are cut into segments anywhere; the segments of all are mixed."""
    capture, rows, waiting = frames.Capture(), {}, []
    capture.datagram(captures.PRESS[0], captures.announcement(captures.PRESS[1]))
    for number in range(12):
        stream = capture.connect((captures.PUMP[0], 41000 + number), captures.PRESS)
        rows[number] = random_rows(dice)
        for piece in random_pieces(dice, hello(b"plant", b"press", b"ctl")):
            stream.server(piece)
        for piece in random_pieces(dice, answer(b"line-4", 57891)):
            stream.client(piece)
        data = b"".join(captures.row(*row) for row in rows[number])
        waiting.append((stream, list(random_pieces(dice, data))))
    while waiting:
        stream, pieces = dice.choice(waiting)
        stream.server(pieces.pop(0))
        waiting = [(stream, pieces) for stream, pieces in waiting if pieces]
    (tmp_path / "cut.pcap").write_bytes(capture.bytes())
    return tmp_path / "cut.pcap", rows


def test_records_are_found_however_they_are_cut_into_segments(cut):
    capture, rows = cut

    assert rows_shown(capture) == rows
    assert rows_shown(capture, *tshark.TWICE) == rows


def test_segments_in_any_order_are_put_in_order_when_tcp_does_so(tmp_path, dice):
    capture, rows = frames.Capture(), random_rows(dice)
    capture.datagram(captures.PRESS[0], captures.announcement(captures.PRESS[1]))
    stream = capture.connect((captures.PUMP[0], 41000), captures.PRESS)
    stream.server(hello(b"plant", b"press", b"ctl"))
    stream.client(answer(b"line-4", 57891))
    before = len(capture.packets)
    stream.server(*random_pieces(dice, b"".join(captures.row(*row) for row in rows)))
    late = capture.packets[before:]
    dice.shuffle(late)
    capture.packets[before:] = late
    (tmp_path / "late.pcap").write_bytes(capture.bytes())

    shown = rows_shown(tmp_path / "late.pcap", *tshark.TWICE, "-o", "tcp.reassemble_out_of_order:TRUE")

    assert shown == {0: rows}


def test_garbage_is_decoded_without_an_error(tmp_path, dice):
    capture = frames.Capture()
    capture.datagram(captures.PRESS[0], captures.announcement(captures.PRESS[1]))
    for number in range(60):
        capture.datagram(captures.PANEL[0], dice.randbytes(dice.randrange(300)))
        stream = capture.connect((captures.PUMP[0], 41000 + number), captures.PRESS, handshake=dice.random() < 0.8)
        honest = [hello(b"plant", b"press", b"ctl"), answer(b"line-4", 57891)]
        for _ in range(dice.randrange(12)):
            side = dice.choice(("server", "client"))
            data = honest.pop(0) if honest and dice.random() < 0.7 else bytes(
                dice.choice((0, 0, 0, 1, 16, 255, dice.randrange(256))) for _ in range(dice.randrange(1, 100)))
            stream.segment(side, data, seen=dice.random() < 0.9, offset=dice.choice((0, 0, 0, 0, 0, -5, 7)))
    (tmp_path / "garbage.pcap").write_bytes(capture.bytes(dice.choice((60, 80, 65535))))

    for options in ([], [*tshark.TWICE, "-o", "varnix.assume:TRUE"]):
        shown = tshark.fields(tmp_path / "garbage.pcap", ("varnix.data", "_ws.expert.message"), *options)
        assert len(shown) == len(capture.packets)


def test_the_largest_names_and_the_smallest_records_are_shown_in_part(tmp_path):
    capture = frames.Capture()
    capture.datagram(captures.PRESS[0], captures.announcement(captures.PRESS[1]))
    stream = capture.connect((captures.PUMP[0], 41000), captures.PRESS)
    first = record(b"\xff" * 4095, b"\xff" + b"\xfe" * 1048574)
    stream.server(*(first[at:at + 60000] for at in range(0, len(first), 60000)))
    stream.client(answer(b"line-4", 57891))
    stream.server(record(b"", b"") * 15000, record(b"\0", b""), record(b"\xff" * 4095, b"\xff" * 1048575)[:60000])
    (tmp_path / "large.pcap").write_bytes(capture.bytes())

    shown = tshark.fields(tmp_path / "large.pcap", ("varnix.record", "varnix.unknown.many"))

    numbers = [number for (records, _) in shown for number in records if number]
    assert numbers == ["1", "2", *map(str, range(3, 10003)), "15003"]
    assert [len(records) for records, many in shown if many[0]] == [10000]
