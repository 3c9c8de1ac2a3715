# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Measures varnix-mqtt beside what its broker carries from one client to another: measure.py RESULTS.json [TURNS]

Three network namespaces: a site, the broker, another site. Runs of the two systems take turns, so that what the machine
does meanwhile meets both, and ratios are taken within one turn. The broker has bench/peers/mosquitto.conf.
"""

import json
import os
import pathlib
import statistics
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[2]
sys.path[:0] = [str(ROOT / "tests" / "system"), str(ROOT / "bench")]

import namespaces  # noqa: E402
from peer import Peer, Server  # noqa: E402

BUILD = pathlib.Path(os.environ["VARNIX_BUILD"])
BRIDGE = BUILD / "bridges" / "mqtt" / "varnix-mqtt"
MEMBER = BUILD / "bridges" / "mqtt" / "bench" / "mqtt_member"
CLIENT = BUILD / "bridges" / "mqtt" / "bench" / "mqtt_client"
BROKER_CONF = ROOT / "bench" / "peers" / "mosquitto.conf"
ROWS = 100_000
LOOPBACK = "127.255.255.255"


def private_mib(program):
    lines = pathlib.Path(f"/proc/{program.pid}/smaps_rollup").read_text().splitlines()
    return int(next(line for line in lines if line.startswith("Private_Dirty")).split()[1]) / 1024


class Place:
    """Two sites and the broker between them. Leaving it ends everything in it."""

    def __init__(self):
        self._running = []
        self.left, self.right, self.middle = (namespaces.Namespace() for _ in range(3))
        for number, side in enumerate((self.left, self.right), 1):
            namespaces.connect(self.middle, side, f"site{number}")
            self.middle.ip(f"address add 10.0.{number}.1/24 dev site{number}")
            side.ip(f"address add 10.0.{number}.2/24 dev eth0")
        self.broker = self.run(self.middle, "mosquitto", "-c", BROKER_CONF)
        time.sleep(0.5)  # It does not say when it is ready.

    def run(self, namespace, *command):
        with namespace:
            self._running.append(Server(command))
        return self._running[-1]

    def bridge(self, number, *more):
        return self.run((self.left, self.right)[number - 1], BRIDGE, "--site", f"site{number}", "--group", "bench",
                        "--database", "plant", "--broker", f"10.0.{number}.1", "--broadcast", LOOPBACK, *more)

    def peer(self, number, program, written, watched, name):
        with (self.left, self.right)[number - 1]:
            address = LOOPBACK if program == MEMBER else f"10.0.{number}.1"
            self._running.append(Peer(program, written, watched, address, name))
        return self._running[-1]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for running in reversed(self._running):
            running.close()
        for namespace in (self.left, self.right, self.middle):
            namespace.close()


class Pair:
    """A writer here and a watcher there, and what is between them."""

    def __init__(self, place, system):
        self.between = {"broker": place.broker}
        if system == "bridges":
            self.between["out"] = place.bridge(1)
            self.between["in"] = place.bridge(2, "--import", "site1")
            self.writer = place.peer(1, MEMBER, "plant/data", "-", "writer")
            self.watcher = place.peer(2, MEMBER, "-", "plant@site1/data", "watcher")
        else:
            self.watcher = place.peer(2, CLIENT, "-", "data", "watcher")
            self.writer = place.peer(1, CLIENT, "data", "-", "writer")
        self.between |= {"writer": self.writer, "watcher": self.watcher}
        self.writer.ask("fill 0 1")
        self.watcher.ask("seen 1")

    def cpu_seconds(self):
        return {name: program.usage()["cpu_seconds"] for name, program in self.between.items()}


def rows_a_second(system):
    """New rows as fast as possible, until the watcher has seen them all."""
    with Place() as place:
        pair = Pair(place, system)
        before = pair.cpu_seconds()
        pair.watcher.tell(f"seen {ROWS + 1}")
        begin, _ = pair.writer.ask(f"fill 1 {ROWS}")
        seen, = pair.watcher.answer()
        after = pair.cpu_seconds()
        return {"rows_a_second": ROWS / ((seen - begin) / 1e9),
                **{f"{name}_cpu_us": (after[name] - before[name]) * 1e6 / ROWS for name in before},
                **{f"{name}_mib": private_mib(program) for name, program in pair.between.items()}}


def latency(system):
    """A new row each five milliseconds."""
    with Place() as place:
        pair = Pair(place, system)
        count = 1000
        pair.watcher.tell(f"latencies {count}")
        pair.writer.ask(f"every 5000 {count}")
        latencies = sorted(value / 1e6 for value in pair.watcher.answer())
        return {"p50_ms": statistics.median(latencies), "p99_ms": latencies[int(count * 0.99)],
                "max_ms": latencies[-1]}


def main():
    turns = int(sys.argv[2]) if len(sys.argv) > 2 else 5
    results = {}
    for _ in range(turns):
        for job in (rows_a_second, latency):
            for system in ("clients", "bridges"):
                figures = job(system)
                print(job.__name__, system, {name: round(value, 2) for name, value in figures.items()}, flush=True)
                results.setdefault(job.__name__, {}).setdefault(system, []).append(figures)
    pathlib.Path(sys.argv[1]).write_text(json.dumps(results, indent=1), encoding="utf-8")


if __name__ == "__main__":
    main()
