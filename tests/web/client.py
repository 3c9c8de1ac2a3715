# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Asks `varnix web` as a script does: byte by byte, over a socket of its own."""

import json
import select
import socket

from programs import DEADLINE


class Answer:
    def __init__(self, data):
        head, _, self.body = data.partition(b"\r\n\r\n")
        first, *lines = head.decode().split("\r\n")
        self.status = int(first.split()[1]) if first else None  # None: closed without a word.
        self.headers = {name.lower(): text for name, _, text in (line.partition(": ") for line in lines)}

    def lines(self):
        return [json.loads(line) for line in self.body.decode().splitlines()]


def connect(port, **options):
    connected = socket.create_connection(("127.0.0.1", port), DEADLINE)
    for name, value in options.items():
        connected.setsockopt(socket.SOL_SOCKET, getattr(socket, name), value)
    return connected


def read_all(connected):
    data = b""
    while piece := connected.recv(1 << 16):
        data += piece
    return data


def exchange(port, request):
    """Everything that comes back for these bytes."""
    with connect(port) as connected:
        connected.sendall(request)
        return Answer(read_all(connected))


def request(path, method="GET", host="localhost", headers=""):
    return f"{method} {path} HTTP/1.1\r\nHost: {host}\r\n{headers}\r\n".encode()


def get(port, path, **keywords):
    return exchange(port, request(path, **keywords))


class Events:
    """The events of one reader, as long as it wants."""

    def __init__(self, port, **options):
        self.socket = connect(port, **options)
        self.socket.sendall(request("/events"))
        self._data = b""
        self.size = 0  # Bytes that were read.

    def head(self):
        while b"\r\n\r\n" not in self._data:
            piece = self.socket.recv(4096)
            if not piece:
                break
            self._data += piece
        head, _, self._data = self._data.partition(b"\r\n\r\n")
        return Answer(head + b"\r\n\r\n")

    def next(self):
        """(name, objects)"""
        while b"\n\n" not in self._data:
            piece = self.socket.recv(1 << 16)
            assert piece, "the events have ended"
            self.size += len(piece)
            self._data += piece
        event, _, self._data = self._data.partition(b"\n\n")
        first, *lines = event.decode().split("\n")
        assert first.startswith("event: ") and all(line.startswith("data: ") for line in lines), event[:200]
        return first[7:], [json.loads(line[6:]) for line in lines]

    def take_little(self):
        """Takes what is there, as one does who is slow."""
        if not select.select([self.socket], [], [], 0)[0]:  # A socket with a deadline waits, whatever the flags are.
            return
        piece = self.socket.recv(1 << 16)
        self.size += len(piece)
        self._data += piece

    def until(self, condition):
        """The events up to the first of which that is true."""
        seen = []
        while not seen or not condition(*seen[-1]):
            seen.append(self.next())
        return seen

    def close(self):
        self.socket.close()
