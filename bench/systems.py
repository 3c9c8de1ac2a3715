# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""The systems that are compared: how each is started, in one network namespace or in two that a link connects."""

import json
import os
import pathlib
import subprocess
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "tests" / "system"))

from namespaces import Namespace, why_unavailable  # noqa: E402,F401  (the second is the caller's)
from peer import Peer, Server  # noqa: E402

PROGRAMS = pathlib.Path(os.environ["VARNIX_BENCH"])
BROKERS = {
    "redis": ["redis-server", str(HERE / "peers" / "redis.conf")],
    "mosquitto": ["mosquitto", "-c", str(HERE / "peers" / "mosquitto.conf")],
}
# The second limit is for the jobs in which many new rows are set and watched: what tables cost shows there.
WITH_TABLES = ["varnix", "bare", "tables", "redis", "mosquitto", "zeromq", "cyclonedds"]
COMPARED = [system for system in WITH_TABLES if system != "tables"]
LEFT, RIGHT = "10.0.0.1", "10.0.0.2"


class Process(Peer):
    """A peer program of a system."""

    def __init__(self, system, written, watched, address, name):
        self.started = time.monotonic_ns()
        super().__init__(PROGRAMS / f"peer_{system}", written, watched, address, name)

    def threads(self):
        return len(os.listdir(f"/proc/{self.pid}/task"))

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))


class Place:
    """Where a run takes place, with everything that it has started. Leaving it ends all of that."""

    def __init__(self, system, delay_us=None):
        self.system = system
        self.left = self.right = Namespace()
        self._link = None
        self._running = []
        if delay_us is not None:
            self.right = Namespace()
            self._connect(delay_us)
        self.broker = None
        if system in BROKERS:
            with self.left:
                self.broker = Server(BROKERS[system])
            time.sleep(0.5)  # None of them says when it is ready.
            self._running.append(self.broker)

    def _connect(self, delay_us):
        self._link = subprocess.Popen([PROGRAMS / "delayed_link", self.left.path(), self.right.path(), str(delay_us)],
                                      stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        assert self._link.stdout.readline() == "ready\n"
        for side, address in ((self.left, LEFT), (self.right, RIGHT)):
            side.ip(f"address add {address}/24 broadcast 10.0.0.255 dev eth0")
            side.ip("link set eth0 up")

    def _address(self, is_left):
        if self._link is None:
            return "127.255.255.255" if self.system == "varnix" else "127.0.0.1"
        if self.system == "varnix":
            return "10.0.0.255"
        if self.system == "udp":
            return RIGHT if is_left else LEFT
        if self.system == "cyclonedds":
            return LEFT if is_left else RIGHT
        return LEFT

    def peer(self, written="-", watched="-", on_left=None):
        is_left = written != "-" if on_left is None else on_left
        with self.left if is_left else self.right:
            peer = Process(self.system, written, watched, self._address(is_left), f"peer{len(self._running)}")
        self._running.append(peer)
        return peer

    def segments(self):
        """TCP segments with data that have left the left side so far; ends the link."""
        self._link.stdin.close()
        passed = self._link.stdout.readline().split()
        return int(passed[2])

    def packets(self):
        """Packets that the one namespace has seen on its loopback interface."""
        with self.left:
            shown = subprocess.run(["ip", "-s", "-j", "link", "show", "lo"], check=True, capture_output=True)
        return json.loads(shown.stdout)[0]["stats64"]["tx"]["packets"]

    def connections(self):
        """TCP connections of the one namespace; each has two ends there."""
        with self.left:
            shown = subprocess.run(["ss", "-Htn", "state", "established"], check=True, capture_output=True)
        return len(shown.stdout.splitlines()) // 2

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for running in reversed(self._running):
            running.close()
        if self._link is not None:
            self._link.kill()
            self._link.wait()
        for side in {self.left, self.right}:
            side.close()
