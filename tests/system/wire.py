# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""A small peer of its own: speaks the protocol from its description and shares no code with the library."""

import fcntl
import socket
import struct
import termios

DISCOVERY_PORT = 1975
DEADLINE = 60  # Seconds; they only bound a failing run.


def record(a, b):
    return struct.pack(">I", len(a) << 20 | len(b)) + a + b


def hello(database, device, process):
    return record(database, bytes([len(device)]) + device + process)


def answer(group, port):
    return record(group, struct.pack(">H", port))


class Ether:
    """Hears what is announced in this namespace, and announces."""

    def __init__(self):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.socket.settimeout(DEADLINE)
        self.socket.bind(("", DISCOVERY_PORT))

    def receive(self):
        return self.socket.recv(65536)

    def port_of_next_announcement(self):
        return struct.unpack(">H", self.receive()[:2])[0]

    def send(self, datagram, address="127.255.255.255"):
        speaker = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        speaker.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
        speaker.sendto(datagram, (address, DISCOVERY_PORT))
        speaker.close()

    def announce(self, port, group, address="127.255.255.255"):
        self.send(struct.pack(">H", port) + group, address)


class Connection:
    def __init__(self, connected):
        self.socket = connected
        self.socket.settimeout(DEADLINE)
        self._waiting = 0

    def send(self, data):
        self.socket.sendall(data)

    def receive(self, size):
        """Exactly so many bytes, or fewer if the connection ends."""
        received = bytearray()
        while len(received) < size:
            try:
                piece = self.socket.recv(min(size - len(received), 1 << 20))
            except ConnectionResetError:
                break
            if not piece:
                break
            received += piece
        return bytes(received)

    def receive_record(self):
        """(field A, field B), or None at the end of the connection."""
        header = self.receive(4)
        if len(header) < 4:
            return None
        lengths, = struct.unpack(">I", header)
        return self.receive(lengths >> 20), self.receive(lengths & 0xFFFFF)

    def is_closed(self):
        return self.receive(1) == b""

    def unread(self):
        """How many bytes have come and wait to be received."""
        return struct.unpack("i", fcntl.ioctl(self.socket, termios.FIONREAD, bytes(4)))[0]

    def stopped_growing(self):
        """Whether as much waits to be received as at the last call."""
        before, self._waiting = self._waiting, self.unread()
        return self._waiting == before

    def half_close(self):
        self.socket.shutdown(socket.SHUT_WR)

    def reset(self):
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.socket.close()

    def close(self):
        self.socket.close()


def connect(port, address="127.0.0.1"):
    return Connection(socket.create_connection((address, port), timeout=DEADLINE))


class Listener:
    def __init__(self):
        self.socket = socket.create_server(("", 0))
        self.socket.settimeout(DEADLINE)
        self.port = self.socket.getsockname()[1]

    def accept(self):
        return Connection(self.socket.accept()[0])

    def close(self):
        self.socket.close()
