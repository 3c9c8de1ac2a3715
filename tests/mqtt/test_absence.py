# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""What could not arrive at its time, and is made good within a minute."""

from sites import DATABASE, TABLE

IMPORTED = b"plant@hall1"
QUOTA_EXCEEDED = 0x97


def test_an_empty_value_and_a_row_over_a_quota_arrive_a_minute_later(broker, make_proxy, make_site, make_member,
                                                                      start_bridge):
    refused = []

    def refuse_once(packet):
        if packet.topic().endswith("/quota") and not refused:
            refused.append(packet)
            return QUOTA_EXCEEDED
        return None

    one, two = make_site(b"hall1"), make_site(b"hall2")
    source = start_bridge(one, port=make_proxy(broker, refusal=refuse_once).port)
    reading = start_bridge(two, "--import", "hall1")
    writer, reader = make_member(one), make_member(two, IMPORTED)
    reader.watch(IMPORTED, TABLE)
    writer.set(DATABASE, TABLE, b"row", b"full")
    assert reader.gets(b"row", b"full", database=IMPORTED)
    reading.kill()
    writer.set(DATABASE, TABLE, b"row", b"")  # No broker keeps it for later.
    writer.set(DATABASE, TABLE, b"quota", b"1")
    assert source.says("The broker does not get the row 'plant/status/quota': a quota is exceeded")
    start_bridge(two, "--import", "hall1")
    assert reader.shows(TABLE, {b"row": b"", b"quota": b"1"}, IMPORTED, seconds=120)
