# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""What the library costs a device, as Markdown: measure.py NATIVE_BUILD ARMHF_BUILD. scripts/footprint runs it."""

import os
import pathlib
import re
import resource
import socket
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "system"))

import namespaces
import sizes
import wire

PEERS = 50
ROWS = 100_000
KEY_SIZE, VALUE_SIZE = 16, 32  # As the probe's.
ARM_SPACES_MIB = (3072, 2048)  # What kernels of 32 bits leave to a process.
ARM_PEERS = (0, 50, 200, 1000)
LEFT_MIB, TAKEN_MIB = 256, 16
DEADLINE = 120  # Seconds.
GROUP, DATABASE = b"line-4", b"plant"
KIB = 1024
MIB = 1024 * KIB


class Build:
    """A build directory: the library and the probe in it, and what can read and run them."""

    def __init__(self, directory):
        self.directory = pathlib.Path(directory)
        cache = (self.directory / "CMakeCache.txt").read_text(encoding="utf-8")
        self.strip, self.readelf = (re.search(rf"^CMAKE_{tool}:\w+=(.+)$", cache, re.MULTILINE)[1]
                                    for tool in ("STRIP", "READELF"))
        self.library = self.directory / "libvarnix.so"
        self.probe = self.directory / "tests" / "footprint" / "footprint_probe"


class Probe:
    """A running probe; see probe.cpp."""

    def __init__(self, build, emulator=()):
        self._process = subprocess.Popen([*emulator, str(build.probe)], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                         text=True)
        self._proc = pathlib.Path(f"/proc/{self._process.pid}")
        self._read()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._process.kill()
        self._process.communicate()

    def _read(self):
        line = self._process.stdout.readline()
        if not line:
            sys.exit(f"footprint: the probe has ended with status {self._process.wait()}")
        self.heap, self.reserved = (int(number) for number in line.split())

    def do(self, command, count=0):
        self._process.stdin.write(f"{command} {count}\n")
        self._process.stdin.flush()
        self._read()

    def threads(self):
        return len(os.listdir(self._proc / "task"))

    def descriptors(self):
        return len(os.listdir(self._proc / "fd")) - 3  # Without the standard streams.

    def memory(self, field):
        text = (self._proc / "smaps_rollup").read_text(encoding="ascii")
        return int(re.search(rf"^{field}:\s+(\d+) kB", text, re.MULTILINE)[1]) * KIB

    def mappings(self):
        """(first line, {field: bytes}) of each mapping."""
        for text in re.split(r"^(?=[0-9a-f]+-[0-9a-f]+ )", (self._proc / "smaps").read_text(encoding="utf-8"),
                             flags=re.MULTILINE)[1:]:
            fields = {name: int(kib) * KIB for name, kib in re.findall(r"^(\w+):\s+(\d+) kB", text, re.MULTILINE)}
            yield text.splitlines()[0], fields

    def settle(self, threads):
        """Waits until it has so many threads, and has had them for two seconds: nothing is under way any more."""
        end = time.monotonic() + DEADLINE
        since = None
        while since is None or time.monotonic() - since < 2:
            now = self.threads()
            if now != threads:
                since = None
            elif since is None:
                since = time.monotonic()
            if time.monotonic() > end:
                sys.exit(f"footprint: the probe has {now} threads where {threads} were expected")
            time.sleep(0.05)  # Nothing tells of a thread that ends: it has to be counted again.
        self.do("report")


class Peers:
    """Members of the group that have no rows: each has a connection in each direction, and that is all."""

    def __init__(self, probe_port):
        self._port = probe_port
        self._listener = socket.create_server(("127.0.0.1", 0), backlog=4096)
        self.give_up_after(DEADLINE)
        self._connections = []

    def give_up_after(self, seconds):
        self._listener.settimeout(seconds)

    def add(self, count):
        for _ in range(count):
            self._add()

    def _add(self):
        name = b"%d" % len(self._connections)
        served = wire.connect(self._port)
        served.receive_record()
        served.send(wire.answer(GROUP, self._listener.getsockname()[1]))
        received = wire.Connection(self._listener.accept()[0])
        received.send(wire.hello(DATABASE, b"peer", name))
        received.receive_record()
        self._connections += [served, received]

    def send_rows(self, count):
        """By the peer that was added last."""
        table = bytes([len(b"status")]) + b"status"
        sender = self._connections[-1]
        for i in range(count):
            sender.send(wire.record(table + b"%0*d" % (KEY_SIZE, i), b"v" * VALUE_SIZE))
        sender.send(wire.record(table + b"last", b"v"))

    def close(self):
        for connection in self._connections:
            connection.close()
        self._listener.close()


class Sharing:
    """A probe that shares, alone in a network of its own; add peers as needed."""

    def __init__(self, build, emulator=()):
        self._namespace = namespaces.Namespace()
        self._namespace.__enter__()
        ether = wire.Ether()
        self.probe = Probe(build, emulator)
        self._idle_threads = self.probe.threads() + 2
        self.probe.do("share")
        self._peers = Peers(ether.port_of_next_announcement())
        ether.socket.close()
        self._count = 0
        self.probe.settle(self._idle_threads)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.probe.__exit__()
        self._peers.close()
        self._namespace.__exit__()
        self._namespace.close()

    def have_peers(self, count):
        self._peers.add(count - self._count)
        self._count = count
        self.probe.settle(self._idle_threads + 2 * count)

    def add_peers_while_it_can(self):
        """How many there are when the next one is not connected to in ten seconds, or not served."""
        self._peers.give_up_after(10)
        while True:
            try:
                self._peers.add(1)
            except OSError:
                return self._count
            self._count += 1

    def receive_rows(self, count):
        self._peers.send_rows(count)
        self.probe.do("await")


def table(title, *rows):
    rows = [[str(cell) for cell in row] for row in rows]
    widths = [max(len(row[i]) for row in rows) for i in range(len(rows[0]))]

    def line(cells):
        first, *others = (cell.ljust(width) if i == 0 else cell.rjust(width)
                          for i, (cell, width) in enumerate(zip(cells, widths)))
        return "| " + " | ".join([first, *others]) + " |"

    rule = "|".join(["", "-" * (widths[0] + 2), *("-" * (width + 1) + ":" for width in widths[1:]), ""])
    print(f"## {title}\n", line(rows[0]), rule, *map(line, rows[1:]), "", sep="\n", flush=True)


def kib(count):
    return f"{count / KIB:,.0f} KiB"


def mib(count):
    return f"{count / MIB:,.1f} MiB"


def measure_library(native, armhf):
    both = [sizes.parts(build.library, build.readelf) for build in (armhf, native)]
    stripped = [sizes.stripped_size(build.library, build.strip) for build in (armhf, native)]
    table("The library",
          ["bytes", "armhf, MinSizeRel", "x86-64, Release"],
          *[[name, *(f"{part[name]:,}" for part in both)] for name in ("text", "read-only", "writable")],
          ["relocations", *(f"{part['relocations']:,} ({part['relocation entries']})" for part in both)],
          ["stripped file", *(f"{size:,}" for size in stripped)])
    return stripped[0] < sizes.MOST_ARMHF_BYTES


def process_figures(probe):
    return (probe.memory("Pss"), probe.memory("Private_Dirty"), probe.heap, probe.reserved, probe.threads(),
            probe.descriptors())


def process_row(state, figures):
    pss, dirty, heap, reserved, threads, descriptors = figures
    return [state, kib(pss), kib(dirty), kib(heap), mib(reserved), threads, descriptors]


def measure_process(native):
    rows = [["", "PSS", "private dirty", "heap in use", "reserved", "threads", "descriptors"]]
    with Probe(native) as probe:
        rows.append(process_row("linked, nothing called", process_figures(probe)))
    with Sharing(native) as sharing:
        probe = sharing.probe
        idle = process_figures(probe)
        rows.append(process_row("shares a database, no peer", idle))
        sharing.have_peers(PEERS)
        busy = process_figures(probe)
        rows.append(process_row(f"... and has {PEERS} peers", busy))
        pss, dirty, heap, reserved, threads, descriptors = ((new - old) / PEERS for old, new in zip(idle, busy))
        rows.append(["for each peer", *(f"{size / KIB:.1f} KiB" for size in (pss, dirty, heap)), mib(reserved),
                     f"{threads:.0f}", f"{descriptors:.0f}"])
        mappings = list(probe.mappings())
    table("A process, x86-64", *rows)
    return mappings


def measure_threads(mappings):
    # Each stack has a page before it that nobody may touch; so stacks are mappings of their own.
    default = resource.getrlimit(resource.RLIMIT_STACK)[0]
    rows = [["", "threads", "stack reserved", "stack in memory"]]
    for name, size in (("of a peer", 256 * KIB), ("discovery, accepting", default)):
        found = [fields["Private_Dirty"] for line, fields in mappings
                 if fields["Size"] == size and re.search(r" rw-p 0+ 00:00 0 *$", line)]
        if found:
            rows.append([name, len(found), kib(size), f"{sum(found) / len(found) / KIB:.1f} KiB each"])
    table("A thread, x86-64", *rows)


def grow_by_rows(kind, build, emulator):
    """(private dirty, heap in use) that so many rows add."""
    with Sharing(build, emulator) as sharing:
        probe = sharing.probe
        probe.do("local" if kind == "local" else "shared")
        if kind == "received":
            sharing.have_peers(1)
        before = probe.memory("Private_Dirty"), probe.heap
        if kind == "received":
            sharing.receive_rows(ROWS)
        else:
            probe.do("set", ROWS)
        return probe.memory("Private_Dirty") - before[0], probe.heap - before[1]


def measure_rows(native, armhf, emulator):
    rows = [["", "x86-64, private dirty", "x86-64, heap", "armhf, heap", "armhf, a row"]]
    for name, kind in (("in a local table", "local"), ("in a shared table, set here", "shared"),
                       ("in a shared table, received", "received")):
        dirty, heap = grow_by_rows(kind, native, ())
        _, arm_heap = grow_by_rows(kind, armhf, emulator)
        rows.append([name, mib(dirty), mib(heap), mib(arm_heap), f"{arm_heap / ROWS:.0f} bytes"])
    table(f"{ROWS:,} rows, keys of {KEY_SIZE} bytes and values of {VALUE_SIZE}", *rows)


def measure_space(armhf, emulator):
    taken = 4096 - ARM_SPACES_MIB[0]
    rows = [["peers", "threads", "address space reserved", "heap in use"]]
    with Sharing(armhf, emulator) as sharing:
        probe = sharing.probe
        probe.do("take", taken)
        emulators_own = probe.threads() - 3
        figures = []
        for count in ARM_PEERS:
            sharing.have_peers(count)
            figures.append((probe.threads() - emulators_own, probe.reserved - taken * MIB, probe.heap))
            rows.append([f"{count:,}", f"{figures[-1][0]:,}", mib(figures[-1][1]), kib(figures[-1][2])])
    threads, space, heap = ((last - first) / ARM_PEERS[-1] for first, last in zip(figures[0], figures[-1]))
    rows.append(["for each", f"{threads:.0f}", kib(space), f"{heap / KIB:.1f} KiB"])
    table("A process of 32 bits, armhf, in an address space of 3 GiB", *rows)
    return figures[0][1], space


def fill_space(armhf, emulator):
    """How many peers a process of 32 bits has when there is no space for one more, of so much at first."""
    with Sharing(armhf, emulator) as sharing:
        probe = sharing.probe
        while probe.reserved + TAKEN_MIB * MIB < 4096 * MIB - LEFT_MIB * MIB:
            probe.do("take", TAKEN_MIB)
        left = 4096 * MIB - probe.reserved
        return left, sharing.add_peers_while_it_can()


def measure_limit(armhf, emulator, idle, each):
    # Of all that 32 bits address; filling what a kernel leaves of it would take more peers than a server receives from.
    left, held = fill_space(armhf, emulator)
    rows = [["address space", f"peers of {kib(each)}", "of 16 MiB: two threads of 8 MiB", "tried"]]
    for size_mib in ARM_SPACES_MIB:
        room = size_mib * MIB - idle
        tried = f"{ARM_PEERS[-1]:,}" if size_mib == ARM_SPACES_MIB[0] else ""
        rows.append([f"{size_mib // 1024} GiB", f"{int(room / each):,}", f"{room // (16 * MIB):,}", tried])
    rows.append([f"{left // MIB} MiB more than idle", f"{int(left / each):,}", f"{left // (16 * MIB):,}",
                 f"{held:,}, no more"])
    table("Peers that an address space has room for", *rows)


def allow_descriptors():
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    if hard < 4 * ARM_PEERS[-1]:
        sys.exit(f"footprint: needs {4 * ARM_PEERS[-1]} descriptors, and may have {hard}")


def main():
    native, armhf = Build(sys.argv[1]), Build(sys.argv[2])
    emulator = ["qemu-arm", "-L", "/usr/arm-linux-gnueabihf"]
    small = measure_library(native, armhf)
    if unavailable := namespaces.why_unavailable():
        sys.exit(f"footprint: {unavailable}")
    allow_descriptors()
    measure_threads(measure_process(native))
    measure_rows(native, armhf, emulator)
    measure_limit(armhf, emulator, *measure_space(armhf, emulator))
    if not small:
        sys.exit(f"footprint: the stripped armhf library has reached {sizes.MOST_ARMHF_BYTES:,} bytes")


main()
