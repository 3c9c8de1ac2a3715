# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Measures every system at every job: measure.py RESULTS.json

Runs take turns among the systems, so that what the machine does meanwhile meets all of them, and a ratio of two systems
is taken within one turn. All times in milliseconds, latencies in microseconds.
"""

import contextlib
import json
import statistics
import subprocess
import sys
import time

from systems import COMPARED, WITH_TABLES, Place, why_unavailable

ROWS = 200_000
RESULTS = {}


def save():
    with open(sys.argv[1], "w", encoding="utf-8") as file:
        json.dump(RESULTS, file, indent=1)


def note(job, system, **figures):
    print(job, system, figures, flush=True)
    RESULTS.setdefault(job, {}).setdefault(system, []).append(figures)
    save()


def in_turns(systems, turns):
    return [system for _ in range(turns) for system in systems]


def meet(writer, *watchers):
    """Sets one row and waits until all have it."""
    writer.ask("fill 0 1")
    for watcher in watchers:
        watcher.ask("seen 1")


def fill(system, rows=ROWS, job="fill"):
    """New rows as fast as possible, until a watcher has seen them all; then new values for them, likewise."""
    with Place(system) as place:
        writer, watcher = place.peer(written="data"), place.peer(watched="data")
        meet(writer, watcher)
        before = writer.usage(), watcher.usage(), place.broker and place.broker.usage()
        watcher.tell(f"seen {rows + 1}")
        begin, end = writer.ask(f"fill 1 {rows}")
        seen, = watcher.answer()
        after = writer.usage(), watcher.usage(), place.broker and place.broker.usage()
        figures = {"ms": (seen - begin) / 1e6, "set_ms": (end - begin) / 1e6}
        for side, first, last in zip(("writer", "watcher", "broker"), before, after):
            if first:
                figures[f"{side}_cpu_s"] = last["cpu_seconds"] - first["cpu_seconds"]
                figures[f"{side}_peak_mib"] = last["peak_kib"] / 1024
        note(job, system, rows=rows, **figures)
        if job == "fill":
            watcher.tell("last")
            begin, end = writer.ask(f"refill 1 {rows}")
            seen, = watcher.answer()
            note("refill", system, rows=rows, ms=(seen - begin) / 1e6, set_ms=(end - begin) / 1e6)


def snapshot(system, rows, delay_us=None, job=None):
    """A late joiner, from its start until it has seen all rows."""
    with Place(system, delay_us) as place:
        writer = place.peer(written="data")
        writer.ask(f"fill 0 {rows}")
        early = place.peer(watched="data", on_left=True)
        early.ask(f"seen {rows}")  # Whatever stands between has them all, too.
        early.close()
        late = place.peer(watched="data")
        seen, = late.ask(f"seen {rows}")
        figures = {"rows": rows, "ms": (seen - late.started) / 1e6}
        if delay_us is not None:
            figures["segments"] = place.segments()
        note(job or f"snapshot {rows}", system, **figures)


def start(system):
    """From the start of a process until it has seen the first row of one that is there."""
    with Place(system) as place:
        writer, early = place.peer(written="data"), place.peer(watched="data")
        meet(writer, early)
        late = place.peer(watched="data")
        seen, = late.ask("seen 1")
        note("start", system, ms=(seen - late.started) / 1e6)


def overwrite(system, times):
    """One row, set a million times, until its last value is seen."""
    with Place(system) as place:
        writer, watcher = place.peer(written="data"), place.peer(watched="data")
        meet(writer, watcher)
        watcher.tell("last")
        begin, end = writer.ask(f"overwrite {times}")
        note("overwrite", system, times=times, ms=(watcher.answer()[0] - begin) / 1e6, set_ms=(end - begin) / 1e6)


def fan_out(system, watchers, rows=20_000):
    with Place(system) as place:
        writer = place.peer(written="data")
        watching = [place.peer(watched="data") for _ in range(watchers)]
        meet(writer, *watching)
        for watcher in watching:
            watcher.tell(f"seen {rows + 1}")
        begin, _ = writer.ask(f"fill 1 {rows}")
        last = max(watcher.answer()[0] for watcher in watching)
        note(f"fan-out {watchers}", system, rows=rows, watchers=watchers, ms=(last - begin) / 1e6)


def group(members, seconds):
    """So many members, each connected to each other, from the start of the first until all are; then idle a while."""
    with Place("varnix") as place:
        begin = time.monotonic()
        peers = [place.peer(written="data")] + [place.peer(watched="data") for _ in range(members - 1)]
        meet(*peers)
        row_s = time.monotonic() - begin
        while place.connections() < members * (members - 1):
            if time.monotonic() - begin > 120:
                raise RuntimeError(f"{place.connections()} connections after two minutes")
            time.sleep(0.5)
        all_s = time.monotonic() - begin
        before = peers[1].usage(), place.packets()
        time.sleep(seconds)
        after = peers[1].usage(), place.packets()
        note("group", "varnix", members=members, row_s=row_s, all_s=all_s, connections=place.connections(),
             threads=peers[1].threads(), descriptors=peers[1].descriptors(),
             resident_mib=after[0]["resident_kib"] / 1024,
             cpu_ms_per_minute=(after[0]["cpu_seconds"] - before[0]["cpu_seconds"]) * 60_000 / seconds,
             packets_per_minute=(after[1] - before[1]) * 60 / seconds / members)


def quantiles(latencies):
    ordered = sorted(latency / 1e3 for latency in latencies)
    return {"p50_us": statistics.median(ordered), "p99_us": ordered[int(len(ordered) * 0.99)], "max_us": ordered[-1]}


def latency(system, interval_us, count, delay_us=None, both_ways=False):
    """One way, with a row at each interval."""
    with Place(system, delay_us) as place:
        if both_ways:
            left = place.peer(written="a", watched="b", on_left=True)
            right = place.peer(written="b", watched="a", on_left=False)
        else:
            left, right = place.peer(written="a", on_left=True), place.peer(watched="a", on_left=False)
        sides = [(left, right), (right, left)] if both_ways else [(left, right)]
        for writer, watcher in sides:
            if system == "udp":
                time.sleep(0.2)  # Nothing would repeat a datagram for which nobody listens yet.
            else:
                meet(writer, watcher)
        for writer, _ in sides:
            writer.tell(f"every {interval_us} {count}")
        for writer, _ in sides:
            writer.answer()
        taken = [nanoseconds for _, watcher in sides for nanoseconds in watcher.ask(f"latencies {count}")]
        where = "loopback" if delay_us is None else f"round trip {2 * delay_us // 1000} ms"
        note(f"latency {where}, every {interval_us / 1000:g} ms" + (", both ways" if both_ways else ""), system,
             one_way_ms=(delay_us or 0) / 1000, **quantiles(taken))


def idle(systems, seconds):
    """A writer and a watcher that have met, and then nothing; all systems at the same time, each on its own."""
    with contextlib.ExitStack() as stack:
        places = {system: stack.enter_context(Place(system)) for system in systems}
        peers = {}
        for system, place in places.items():
            peers[system] = place.peer(written="data"), place.peer(watched="data")
            meet(*peers[system])
        time.sleep(10)  # What follows the first meeting.

        def readings(system):
            broker = places[system].broker
            used = [peer.usage() for peer in peers[system]] + ([broker.usage()] if broker else [])
            return (places[system].packets(), sum(use["cpu_seconds"] for use in used),
                    sum(use["resident_kib"] for use in used))

        before = {system: readings(system) for system in systems}
        time.sleep(seconds)
        for system in systems:
            packets, cpu, resident = readings(system)
            note("idle", system, packets_per_minute=(packets - before[system][0]) * 60 / seconds,
                 cpu_ms_per_minute=(cpu - before[system][1]) * 60_000 / seconds, resident_mib=resident / 1024)


def machine():
    def shell(command):
        return subprocess.run(command, shell=True, capture_output=True, text=True).stdout.strip()
    return {
        "processor": shell("grep -m1 'model name' /proc/cpuinfo | cut -d: -f2").strip(),
        "cores": int(shell("nproc")),
        "memory_gib": round(int(shell("awk '/MemTotal/ {print $2}' /proc/meminfo")) / 2**20),
        "kernel": shell("uname -sr"),
        "compiler": shell("c++ --version | head -1"),
        "date": shell("date -u +%F"),
        "versions": dict(line.split() for line in shell(
            "dpkg-query -W -f '${Package} ${Version}\\n' redis-server mosquitto libzmq5 cyclonedds-dev").splitlines()),
    }


def measure_all():
    RESULTS["machine"] = machine()
    for system in in_turns(WITH_TABLES, 3):
        fill(system)
    for rows in (1_000, 10_000, 100_000, 1_000_000):
        for system in in_turns(("varnix", "bare", "tables"), 3 if rows < 1_000_000 else 1):
            fill(system, rows, "growth")
    for system in in_turns(COMPARED, 3):
        snapshot(system, 100_000)
    for system in COMPARED:
        snapshot(system, 1_000_000)
    for system in in_turns(COMPARED, 3):
        start(system)
    for system in COMPARED:
        overwrite(system, 1_000_000)
    for watchers in (1, 4, 16, 64):
        for system in WITH_TABLES:
            fan_out(system, watchers)
    for both_ways in (False, True):
        for interval_us, count in ((1_000, 2_000), (10_000, 200), (100_000, 30)):
            for system in [*COMPARED, "udp"]:
                latency(system, interval_us, count, both_ways=both_ways)
    for delay_us in (2_000, 10_000, 50_000):
        for interval_us, count in ((1_000, 1_000), (5_000, 300), (10_000, 200), (100_000, 20)):
            for system in ("varnix", "bare", "udp"):
                latency(system, interval_us, count, delay_us)
        for system in COMPARED:
            latency(system, 5_000, 300, delay_us)
    for system in ("varnix", "bare"):
        snapshot(system, 100_000, 10_000, "snapshot 100000, round trip 20 ms")
    idle(COMPARED, 60)
    for members in (10, 100):
        group(members, 20)


def main():
    unavailable = why_unavailable()
    if unavailable:
        sys.exit(unavailable)
    begin = time.monotonic()
    measure_all()
    RESULTS["machine"]["minutes"] = round((time.monotonic() - begin) / 60, 1)
    save()


if __name__ == "__main__":
    main()
