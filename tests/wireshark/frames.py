# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Captures that are made byte by byte: IPv4 packets with nothing around them, one each millisecond."""

import struct

SYN, FIN, RST, PSH, ACK = 0x02, 0x01, 0x04, 0x08, 0x10
RAW_IPV4 = 228  # LINKTYPE_IPV4.
BEGIN = 1_800_000_000  # Seconds since 1970.


def _checksum(header):
    total = sum(struct.unpack(f">{len(header) // 2}H", header))
    total = (total & 0xFFFF) + (total >> 16)
    return ~((total & 0xFFFF) + (total >> 16)) & 0xFFFF


def _ip(source, destination, protocol, payload):
    addresses = bytes(map(int, source.split("."))) + bytes(map(int, destination.split(".")))
    header = struct.pack(">BBHHHBBH", 0x45, 0, 20 + len(payload), 0, 0x4000, 64, protocol, 0) + addresses
    return header[:10] + struct.pack(">H", _checksum(header)) + header[12:] + payload


class Conversation:
    """A TCP connection. Its sides are "client", which connects, and "server", which is the sender of Varnix."""

    def __init__(self, capture, client, server, handshake):
        self._capture = capture
        self._ends = {"client": client, "server": server}
        # Not far from the end of the sequence numbers, after which they begin anew. Where two connections have the same
        # ports and the same numbers they count as one.
        self._next = {"client": 0xFFFFFF00 + len(capture.packets), "server": 0xFFFFFF80 + len(capture.packets)}
        if handshake:
            self.segment("client", b"", SYN)
            self.segment("server", b"", SYN | ACK)
            self.segment("client", b"", ACK)
        else:
            self._next = {side: number + 1 for side, number in self._next.items()}

    def segment(self, side, payload, flags=PSH | ACK, seen=True, offset=0):
        """`seen`: whether the capture has it. With an offset it is not the next one, and the next one is as before."""
        other = "server" if side == "client" else "client"
        (source, source_port), (destination, destination_port) = self._ends[side], self._ends[other]
        number, acknowledged = self._next[side] + offset, self._next[other] if flags & ACK else 0
        header = struct.pack(">HHIIBBHHH", source_port, destination_port, number & 0xFFFFFFFF,
                             acknowledged & 0xFFFFFFFF, 0x50, flags, 64000, 0, 0)
        if not offset:
            self._next[side] += len(payload) + bool(flags & (SYN | FIN))
        if seen:
            self._capture.packets.append(_ip(source, destination, 6, header + payload))

    def server(self, *payloads, **keywords):
        for payload in payloads:
            self.segment("server", payload, **keywords)

    def client(self, *payloads, **keywords):
        for payload in payloads:
            self.segment("client", payload, **keywords)


class Capture:
    def __init__(self):
        self.packets = []

    def datagram(self, source, payload, port=1975):
        header = struct.pack(">HHHH", 1975, port, 8 + len(payload), 0)
        self.packets.append(_ip(source, "10.0.255.255", 17, header + payload))

    def tunnel(self, other):
        """The packets of another capture, each in a packet between the same two hosts."""
        self.packets += [_ip("192.0.2.1", "192.0.2.2", 4, packet) for packet in other.packets]

    def connect(self, client, server, handshake=True):
        return Conversation(self, client, server, handshake)

    def bytes(self, most=65535):
        """A pcap file that holds the first so many bytes of each packet."""
        pieces = [struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, RAW_IPV4)]
        for number, packet in enumerate(self.packets):
            seconds, milliseconds = divmod(number, 1000)
            kept = packet[:most]
            pieces += [struct.pack("<IIII", BEGIN + seconds, milliseconds * 1000, len(kept), len(packet)), kept]
        return b"".join(pieces)
