# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Members that behave as no member does."""

import socket
import struct
import threading

import wire

GREETING = wire.hello(b"plant", b"fake", b"ctl")


class FakeMember:
    """Listens, and gives each connection to `behave`, on a thread of its own, until the test is over."""

    def __init__(self, behave):
        self._behave = behave
        self._listener = socket.create_server(("", 0), backlog=128)
        self.port = self._listener.getsockname()[1]
        self._connections = []
        self.visits = 0
        self._threads = [threading.Thread(target=self._accept)]
        self._threads[0].start()

    def _accept(self):
        while True:
            try:
                connected = self._listener.accept()[0]
            except OSError:  # Closed.
                return
            self.visits += 1
            self._connections.append(connected)
            self._threads.append(threading.Thread(target=self._serve, args=(connected,)))
            self._threads[-1].start()

    def _serve(self, connected):
        try:
            self._behave(connected)
        except OSError:  # The command has closed the connection, or the test is over.
            pass

    def announce(self, ether, group=b"line-4"):
        ether.announce(self.port, group)

    def close(self):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        self._threads[0].join()
        for connected in self._connections:
            try:
                connected.shutdown(socket.SHUT_RDWR)
            except OSError:  # Closed by the command.
                pass
        for thread in self._threads[1:]:
            thread.join()
        for connected in self._connections:
            connected.close()


def wait_for_end(connected):
    while connected.recv(65536):
        pass


def claim(a, b):
    """A header alone."""
    return struct.pack(">I", a << 20 | b)
