# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Members that use the library, recorded while they talk."""

import members
import tshark


def test_what_members_say_is_shown_as_what_was_set(network, make_host, tmp_path):
    rows = {
        b"press": [(b"status", b"%d" % number, b"%d" % (number * number)) for number in range(500)],
        b"pump\xff": [
            (b"", b"", b"no names"), (b"\0\xe4", b"\\x00", bytes(range(256))), (b"t" * 255, b"k" * 3839, b"1"),
            (b"cfg", b"empty", b""), ("größe".encode(), "länge".encode(), "\u20ac \x85".encode()),
            (b"cfg", b"last", b"\xf0\x9f\x98\x80")],
        b"panel": [(b"cfg", b"all bytes", bytes(range(256)) * 800), (b"cfg", b"longest", b"v" * 1048575)],
    }
    recorder = members.Recorder(tmp_path / "live.pcap")
    try:
        for host in members.share_rows(rows, make_host):
            assert host.ends() == 0
        recorder.stop()
    finally:
        recorder.close()

    names = ("tcp.stream", "tcp.srcport", "varnix.direction", "varnix.port", "varnix.group", "varnix.database",
             "varnix.record", "varnix.device", "varnix.process", "varnix.length_a", "varnix.length_b", "varnix.table",
             "varnix.key", "varnix.value")
    announced, senders, answers, seen = set(), {}, {}, {}
    for packet in tshark.fields(tmp_path / "live.pcap", names):
        stream, source, direction, port, group, database, record, device, process, length_a, length_b, *texts = packet
        stream, device = stream[0], [tshark.bytes_of(name) for name in device]
        if record == [""]:
            announced |= {(group[0], int(number)) for number in port if number}
        elif record == ["1"]:
            assert direction == ["sender to receiver"]
            senders[stream] = device[0], process[0], database[0], int(source[0])
        elif record == ["2"]:
            assert direction == ["receiver to sender"]
            answers[stream] = group[0], int(port[0])
        else:
            rows_here = [tuple(map(tshark.bytes_of, row)) for row in zip(*texts, strict=True)]
            assert set(direction) == {"sender to receiver"}
            assert {*zip(device, process, strict=True)} == {senders[stream][:2]}
            assert [(int(a), int(b)) for a, b in zip(length_a, length_b, strict=True)] == [
                (1 + len(table) + len(key), len(value)) for table, key, value in rows_here]
            seen.setdefault(stream, []).extend(rows_here)

    assert {sender[:3] for sender in senders.values()} == {(device, "ctl", "plant") for device in rows}
    assert {("line-4", sender[3]) for sender in senders.values()} == set(answers.values()) == announced
    # Each member has a stream to each of the two others, with all its rows.
    streams = sorted((senders[stream][0], sorted(seen[stream])) for stream in answers)
    assert streams == sorted((device, sorted(rows[device])) for device in rows for _ in range(2))
