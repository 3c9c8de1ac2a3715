# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""The kept captures: what is in those that are made byte by byte, and with which options each is decoded.

    captures.py             makes them, and writes down what tshark shows of every kept one
    captures.py --record    records members.pcap anew before that
"""

import pathlib
import struct
import sys

import frames
import tshark
from wire import answer, hello, record

FOLDER = pathlib.Path(__file__).parent / "captures"

# Of the members in the captures: host, listening port.
PRESS, PUMP, PANEL = ("10.0.0.1", 49413), ("10.0.0.2", 57891), ("10.0.0.3", 40123)


def announcement(port, group=b"line-4"):
    return struct.pack(">H", port) + group


def row(table, key, value):
    return record(bytes([len(table)]) + table + key, value)


def announcements(capture):
    capture.datagram(PRESS[0], announcement(49413))
    capture.datagram(PRESS[0], announcement(49413, b"g" * 254))
    capture.datagram(PRESS[0], announcement(49413, "li\0ne \\ \xfe Gr\xf6\xdfe \x85 \u20ac".encode() + b"\xfe\x81\xc3"))
    # No UTF-8: overlong, a surrogate, beyond the last character, half a character.
    capture.datagram(PRESS[0], announcement(49413, b"\xc0\xaf \xe0\x80\xaf \xed\xa0\x80 \xf4\x90\x80\x80 \xf0\x9f\x98"))
    capture.datagram(PRESS[0], announcement(49413, "\U0001f600 \ud7ff \U0010ffff".encode()))
    capture.datagram(PRESS[0], announcement(49413, b""))
    capture.datagram(PRESS[0], announcement(0))
    capture.datagram(PRESS[0], b"")
    capture.datagram(PRESS[0], b"\xc1")
    capture.datagram(PRESS[0], announcement(50001, b"g" * 255))
    capture.datagram(PRESS[0], announcement(50002), port=1976)  # From our port, but not to it.
    for port in (50001, 50002):  # So nobody knows of these.
        capture.connect((PUMP[0], 40001), (PRESS[0], port)).server(hello(b"plant", b"press", b"ctl"))


def both_ways(capture):
    """The port of the pump is told by its record 2 alone."""
    capture.datagram(PRESS[0], announcement(49413))
    first = capture.connect((PUMP[0], 40001), PRESS)
    first.server(hello(b"plant", b"press", b"ctl"))
    first.client(answer(b"line-4", 57891))
    second = capture.connect((PRESS[0], 40002), PUMP)
    second.server(hello(b"plant", b"pump", b""))
    second.client(answer(b"line-4", 49413))
    first.server(row(b"status", b"speed", b"42"))
    second.server(row(b"status", b"flow", b""))
    first.server(row(b"", b"", b"no names"))
    first.server(row(b"status", "Stra\xdfe".encode(), b"\x00\x7f\n \\ \xff\xe4"))
    first.server(b"".join(row(b"cfg", b"key %d" % number, b"%d" % number) for number in range(1, 7)))
    long_row = row(b"status", b"report", b"0123456789" * 15)
    first.server(long_row[:2], long_row[2:60], long_row[60:120], long_row[120:] + row(b"cfg", b"a", b"1") + b"\0")
    first.server(row(b"cfg", b"b", b"2")[1:])
    first.server(row(b"cfg", b"c", b"3")[:-1])
    first.segment("client", b"", frames.FIN | frames.ACK)  # The other direction goes on.
    first.server(b"3")
    first.segment("server", b"", frames.FIN | frames.ACK)
    # The same ports again: another stream.
    again = capture.connect((PUMP[0], 40001), PRESS)
    again.server(hello(b"plant", b"press", b"ctl"))
    again.client(answer(b"line-4", 57891))


def tunnelled(capture):
    """What a switch has sent on: the addresses of the members are in the inner packets."""
    inner = frames.Capture()
    inner.datagram(PRESS[0], announcement(49413))
    stream = inner.connect((PUMP[0], 40001), PRESS)
    stream.server(hello(b"plant", b"press", b"ctl"))
    stream.client(answer(b"line-4", 57891))
    stream.server(row(b"status", b"speed", b"42"))
    inner.connect((PUMP[0], 40002), (PANEL[0], 49413)).server(b"Not the port of a member of this host.")
    capture.tunnel(inner)


def taken_port(capture):
    """Port 44818 is that of another protocol for Wireshark."""
    capture.datagram(PRESS[0], announcement(44818))
    stream = capture.connect((PUMP[0], 40001), (PRESS[0], 44818))
    stream.server(hello(b"plant", b"press", b"ctl"))
    stream.client(answer(b"line-4", 57891))
    stream.server(row(b"status", b"speed", b"42"))
    other = capture.connect((PUMP[0], 40002), (PANEL[0], 44818))
    other.server(b"Not the port of a member.")


def unannounced(capture):
    """The port of the press is not in the capture, and that of the pump is."""
    first = capture.connect((PUMP[0], 40001), PRESS)
    first.server(hello(b"plant", b"press", b"ctl"))
    first.client(answer(b"line-4", 57891))
    first.server(row(b"status", b"speed", b"42"))
    second = capture.connect((PRESS[0], 40002), PUMP)
    second.server(hello(b"plant", b"pump", b"ctl"))
    running = capture.connect((PANEL[0], 40003), PRESS, handshake=False)
    running.server(row(b"status", b"speed", b"43"))
    running.client(b"An answer?")
    unrelated = capture.connect((PANEL[0], 40004), (PRESS[0], 80))
    unrelated.client(b"Not for a member.")


def malformed(capture):
    for member in (PRESS, PUMP):
        capture.datagram(member[0], announcement(member[1]))
    for port in (b"", b"\xc1", b"\xc1\x05\x00"):
        stream = capture.connect((PUMP[0], 41000 + len(port)), PRESS)
        stream.server(hello(b"plant", b"press", b"ctl"))
        stream.client(record(b"line-4", port))

    said_more = capture.connect((PUMP[0], 41010), PRESS)
    said_more.server(hello(b"plant", b"press", b"ctl"))
    said_more.client(answer(b"line-4", 57891) + b"\0")
    said_more.client(record(b"a", b"b"))

    ahead = capture.connect((PUMP[0], 41020), PRESS)
    ahead.server(hello(b"plant", b"press", b"ctl") + row(b"t", b"1", b"a") + row(b"t", b"2", b"b"))
    ahead.client(answer(b"line-4", 57891))
    ahead.server(row(b"t", b"3", b"c"))
    hasty = capture.connect((PUMP[0], 41021), PRESS)
    hasty.client(answer(b"line-4", 57891))
    hasty.server(hello(b"plant", b"press", b"ctl"))
    hasty.server(row(b"t", b"1", b"a"))

    keys = capture.connect((PUMP[0], 41030), PRESS)
    keys.server(record(b"", b""))
    keys.client(answer(b"", 0))
    keys.server(record(b"", b"1") + record(b"\x05cfg", b"2") + record(b"\x01", b"3"))
    keys.server(record(b"\xff", b"4"), record(b"\0", b"5"), record(b"\0k", b"6"))
    odd_names = capture.connect((PUMP[0], 41031), PRESS)
    odd_names.server(record(b"plant", b"\x09pu"))
    odd_names.client(answer(b"line-4", 0))
    odd_names.server(row(b"t", b"k", b"v"))

    for number, end in enumerate((frames.FIN | frames.ACK, frames.RST)):
        stream = capture.connect((PUMP[0], 41040 + number), PRESS)
        stream.server(hello(b"plant", b"press", b"ctl"))
        stream.client(answer(b"line-4", 57891))
        stream.server(row(b"t", b"k", b"value")[:-1])
        stream.segment("server" if end != frames.RST else "client", b"", end)

    # What members without a name send: the header alone.
    no_database = capture.connect((PUMP[0], 41050), PRESS)
    no_database.server(record(b"", b"\x05press")[:4])
    no_database.segment("server", b"", frames.FIN | frames.ACK)
    no_group = capture.connect((PUMP[0], 41051), PRESS)
    no_group.server(hello(b"plant", b"press", b"ctl"))
    no_group.client(answer(b"", 57891)[:4])
    no_group.segment("client", b"", frames.FIN | frames.ACK)

    to_itself = capture.connect(PRESS, PRESS)
    to_itself.server(hello(b"plant", b"press", b"ctl"))


def middle(capture):
    """Streams that are there when the capture starts, or when it tells the port."""
    running = capture.connect((PUMP[0], 42001), PRESS, handshake=False)
    before = capture.connect((PANEL[0], 42002), PRESS)
    before.server(hello(b"plant", b"press", b"ctl"))
    before.client(answer(b"line-4", 40123))
    long_row = row(b"t", b"long", b"A row that began before the port was told.")
    before.server(long_row[:20])
    capture.datagram(PRESS[0], announcement(49413))
    for stream, end in ((running, b"The end of a row."), (before, long_row[20:])):
        stream.segment("client", b"", frames.ACK)
        stream.server(end)
        stream.server(record(b"", b"?"), record(b"\x05cfg", b"?"))  # No row that the library sends.
        stream.server(row(b"t", b"k", b"1"))
        stream.server(row(b"t", b"k", b"2") + row(b"t", b"k", b"3"))
        stream.server(row(b"t", b"k", b"4")[:6], row(b"t", b"k", b"4")[6:])
    running.client(b"?")
    capture.datagram(PUMP[0], announcement(57891))
    between_two = capture.connect(PUMP, PRESS, handshake=False)
    between_two.segment("client", b"", frames.ACK)
    between_two.server(row(b"t", b"k", b"0"))
    anew = capture.connect((PUMP[0], 42003), PRESS)
    anew.server(hello(b"plant", b"press", b"ctl"))
    anew.client(answer(b"line-4", 57891))
    anew.server(row(b"t", b"k", b"5"))


def lost(capture):
    """Segments that are missing, come twice or in another order."""
    capture.datagram(PRESS[0], announcement(49413))
    stream = capture.connect((PUMP[0], 43001), PRESS)
    stream.server(hello(b"plant", b"press", b"ctl"))
    stream.client(answer(b"line-4", 57891))
    stream.server(row(b"t", b"k", b"1"))
    stream.server(row(b"t", b"k", b"1"), offset=-len(row(b"t", b"k", b"1")))
    long_row = row(b"t", b"long", b"v" * 100)
    stream.server(long_row[:40])
    stream.server(long_row[40:80], seen=False)
    stream.server(long_row[80:] + row(b"t", b"k", b"2"))
    stream.server(row(b"t", b"k", b"3"))
    stream.server(row(b"t", b"k", b"4"), seen=False)
    stream.server(row(b"t", b"k", b"5"))
    stream.server(row(b"t", b"k", b"6"))

    shuffled = capture.connect((PUMP[0], 43002), PRESS)
    shuffled.server(hello(b"plant", b"press", b"ctl"))
    shuffled.client(answer(b"line-4", 57891))
    one, two = row(b"t", b"k", b"1"), row(b"t", b"k", b"2")
    shuffled.server(two, offset=len(one))
    shuffled.server(one)
    shuffled.segment("server", two, seen=False)
    shuffled.server(row(b"t", b"k", b"3"))

    torn = capture.connect((PUMP[0], 43004), PRESS)
    torn.server(hello(b"plant", b"press", b"ctl"))
    torn.client(answer(b"line-4", 57891))
    torn.server(long_row[:40])
    torn.server(long_row[40:] + row(b"t", b"k", b"2"), seen=False)
    torn.server(row(b"t", b"k", b"3"))
    torn.segment("server", b"", frames.FIN | frames.ACK)  # Not in the middle of a record, as far as is known.

    twins = capture.connect((PUMP[0], 43005), PRESS)
    twins.server(hello(b"plant", b"press", b"ctl"))
    twins.client(answer(b"line-4", 57891))
    twins.server(long_row[:40])
    twins.server(long_row[40:], seen=False)
    twins.server(row(b"t", b"same", b"w" * 100))  # As long as the record that is missing.
    twins.server(row(b"t", b"k", b"3"))

    headless = capture.connect((PANEL[0], 43003), PRESS)
    headless.server(hello(b"plant", b"press", b"ctl"), seen=False)
    headless.client(answer(b"line-4", 40123))
    headless.server(row(b"t", b"k", b"1"))


def snapped(capture):
    """Written with the first 60 bytes of each packet: 20 bytes of a stream, 32 of a datagram."""
    capture.datagram(PRESS[0], announcement(49413))
    capture.datagram(PUMP[0], announcement(57891, b"g" * 31))
    stream = capture.connect((PUMP[0], 44001), PRESS)
    stream.server(hello(b"plant", b"press", b"c"))
    stream.client(answer(b"line-4", 57891))
    stream.server(row(b"t", b"k", b"1"))
    stream.server(row(b"t", b"k", b"1") + row(b"t", b"a longer key", b"2"))
    stream.server(row(b"t", b"k", b"3"))
    stream.server(row(b"t", b"k", b"4") + row(b"t", b"k", b"5") + row(b"t", b"k", b"6"))
    stream.server(row(b"t", b"k", b"7"))
    stream.server(row(b"t", b"long", b"8") + row(b"t", b"kk", b"9") + row(b"t", b"k", b"10"))
    stream.server(row(b"t", b"k", b"11"))


# How many bytes of each packet a capture holds, where that is not all of them.
MADE = {made: {snapped: 60}.get(made, 65535)
        for made in (announcements, both_ways, tunnelled, taken_port, unannounced, malformed, middle, lost, snapped)}

DECODE_AS = ("-d", "tcp.port==49413,varnix")
ASSUME = ("-o", "varnix.assume:TRUE")
# What is compared: a name, the capture, and the options with which it is decoded.
SHOWN = {made.__name__: (made.__name__, ()) for made in MADE} | {
    "members": ("members", ()),
    "unannounced-decode_as": ("unannounced", DECODE_AS),
    "middle-decode_as": ("middle", DECODE_AS),
    "middle-assume": ("middle", ASSUME),
    "lost-assume": ("lost", ASSUME),
    "lost-no_analysis": ("lost", ("-o", "tcp.analyze_sequence_numbers:FALSE")),
    "lost-reorder": ("lost", ("-o", "tcp.reassemble_out_of_order:TRUE")),
    "both_ways-no_reassembly": ("both_ways", ("-o", "tcp.desegment_tcp_streams:FALSE")),
}


def make(made):
    capture = frames.Capture()
    made(capture)
    return capture.bytes(MADE[made])


def path(name):
    return FOLDER / f"{name}.pcap"


def shown(name, passes=tshark.TWICE):
    capture, options = SHOWN[name]
    return tshark.listing(path(capture), *options, *passes)


def main(arguments):
    if arguments == ["--record"]:
        import members
        members.record(path("members"))
    for made in MADE:
        path(made.__name__).write_bytes(make(made))
    for name, lines in [("fields", tshark.protocol_fields()), *((name, shown(name)) for name in SHOWN)]:
        (FOLDER / f"{name}.txt").write_text("\n".join(lines) + "\n", encoding="utf-8")


if __name__ == "__main__":
    main(sys.argv[1:])
