# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Members of group line-4 with database plant that set what a test wants, as fast as it wants."""

import socket
import threading

import fakes
import wire
from programs import eventually


def row(table, key, value):
    return wire.record(bytes([len(table)]) + table + key, value)


class Member:
    """It is there until it leaves; whoever connects to it is sent every row, and each that is set from then on."""

    def __init__(self, device, rows=(), process=b"ctl"):
        self._greeting = wire.hello(b"plant", device, process)
        self._rows = {}
        self._readers = []
        self._lock = threading.Lock()
        self._remember(rows)
        self._fake = fakes.FakeMember(self._serve)
        self.place = f"127.0.0.1:{self._fake.port}"

    def _remember(self, rows):
        for table, key, value in rows:
            self._rows[table, key] = value

    def _serve(self, connected):
        connected.sendall(self._greeting)
        if not connected.recv(4096):
            return
        with self._lock:
            connected.sendall(b"".join(row(*names, value) for names, value in self._rows.items()))
            self._readers.append(connected)
        fakes.wait_for_end(connected)

    def announce(self):
        speaker = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        speaker.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
        speaker.sendto(self._fake.port.to_bytes(2, "big") + b"line-4", ("127.255.255.255", wire.DISCOVERY_PORT))
        speaker.close()

    def meets(self):
        """Announces itself until somebody reads its rows."""
        readers = len(self._readers)
        assert eventually(lambda: self.announce() or eventually(lambda: len(self._readers) > readers, 1))
        return self

    def set(self, table, key, value):
        self.set_all([(table, key, value)])

    def set_all(self, rows):
        with self._lock:
            self._remember(rows)
            for reader in self._readers:
                try:
                    reader.sendall(b"".join(row(*one) for one in rows))
                except OSError:  # It has gone.
                    pass

    def leave(self):
        if self._fake:
            self._fake.close()
        self._fake = None
