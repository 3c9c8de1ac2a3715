# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""The programs that the tests run, and the host that they drive."""

import os
import pathlib
import random
import re
import resource
import shlex
import signal
import subprocess
import threading
import time

PROGRAMS = pathlib.Path(os.environ["VARNIX_PROGRAMS"])
EMULATOR = shlex.split(os.environ.get("VARNIX_EMULATOR", ""))
DEADLINE = 60  # Seconds; they only bound a failing run.
HOST = os.environ.get("VARNIX_HOST", "system_host")  # What the hosts run that a test does not choose for itself.
SOAK = os.environ.get("VARNIX_SOAK") == "1"  # The long forms of the tests; see scripts/soak.
# What tests choose by chance they choose from this.
SEED = int(os.environ.get("VARNIX_SEED") or random.SystemRandom().randrange(1 << 32))


# The sanitizers and the emulator take their time, and keep memory of their own.
NATIVE = not EMULATOR and not re.search("asan|tsan", os.environ["VARNIX_LIBRARY"])


def only_natively(test):
    """Leaves out a test that a sanitizer or an emulator makes meaningless. Nothing could be installed to have it."""
    return test if NATIVE else None


def not_emulated(test):
    """Leaves a test out where the emulator fails at what it does. Nothing could be installed to have it."""
    return None if EMULATOR else test


def figure(*words):
    """Prints what was measured; scripts/figures shows all such lines."""
    print("figure:", *words)


def steps_back(changes):
    """Those of the (key, number) changes, oldest first, that brought a number not above one seen before."""
    highest, back = {}, []
    for key, value in changes:
        if int(value) <= highest.get(key, 0):
            back.append((key, value, highest[key]))
        highest[key] = max(int(value), highest.get(key, 0))
    return back


def private_memory(pid):
    """Bytes that no other process has."""
    text = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text(encoding="ascii")
    return int(re.search(r"^Private_Dirty:\s+(\d+) kB", text, re.MULTILINE)[1]) * 1024


def address_space(pid):
    """Bytes."""
    return int(pathlib.Path(f"/proc/{pid}/statm").read_text(encoding="ascii").split()[0]) * resource.getpagesize()


def output_of(*command):
    """What the command prints, as text. It has to end with 0."""
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout


def command(name, *arguments):
    return [*EMULATOR, str(PROGRAMS / name), *arguments]


def hexed(data):
    return data.hex() or "-"


def unhexed(word):
    return b"" if word == "-" else bytes.fromhex(word)


class Host:
    """A process that uses the library; see host.cpp."""

    def __init__(self, *arguments, environment=None, program=None):
        self._process = subprocess.Popen([*(program or command(HOST)), *arguments],
                                         stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                         env={**os.environ, **(environment or {})}, start_new_session=True)
        self.pid = self._process.pid
        self.events = []  # Lines of standard output, without the "ok"s.
        self._tables = {}  # The last value of each key, by database and table.
        self.log = []  # (level, tag, text)
        self.errors = []  # Lines of standard error that are not log lines.
        self._ready = 0
        self._killed = False
        self._changed = threading.Condition()
        self._readers = [threading.Thread(target=self._read_events), threading.Thread(target=self._read_log)]
        for reader in self._readers:
            reader.start()

    def _read_events(self):
        for line in self._process.stdout:
            with self._changed:
                if line == b"ok\n":
                    self._ready += 1
                else:
                    self.events.append(line.decode().rstrip("\n"))
                    kind, *words = self.events[-1].split()
                    if kind == "row":
                        database, table, key, value = map(unhexed, words)
                        self._tables.setdefault((database, table), {})[key] = value
                self._changed.notify_all()

    def _read_log(self):
        for line in self._process.stderr:
            text = line.decode("latin-1").rstrip("\n")
            entry = re.fullmatch(r"([0-7]) ([a-z.]+) (.*)", text)
            with self._changed:
                if entry:
                    self.log.append((int(entry[1]), entry[2], entry[3]))
                else:
                    self.errors.append(text)
                self._changed.notify_all()

    def eventually(self, condition, seconds=DEADLINE):
        """Waits until it is true of the lines read so far; whether it came true."""
        with self._changed:
            return self._changed.wait_for(condition, seconds)

    def do(self, *words):
        with self._changed:
            awaited = self._ready + 1
        self._process.stdin.write((" ".join(words) + "\n").encode())
        self._process.stdin.flush()
        assert self.eventually(lambda: self._ready >= awaited), (words, self.errors)

    def share(self, database, group, device, process=b"p", address="127.255.255.255"):
        self.do("share", hexed(database), hexed(group), hexed(device), hexed(process), address)

    def set(self, database, table, key, value):
        self.do("set", hexed(database), hexed(table), hexed(key), hexed(value))

    def set_all(self, database, table, rows):
        """The same for many (key, value) pairs, without waiting for each."""
        lines = [f"set {hexed(database)} {hexed(table)} {hexed(key)} {hexed(value)}\n" for key, value in rows]
        with self._changed:
            awaited = self._ready + len(lines)
        self._process.stdin.write("".join(lines).encode())
        self._process.stdin.flush()
        assert self.eventually(lambda: self._ready >= awaited), self.errors

    def watch(self, database, table):
        self.do("watch", hexed(database), hexed(table))

    def rows(self, database, table):
        """The changes that a watcher of the table has reported, oldest first."""
        prefix = f"row {hexed(database)} {hexed(table)} "
        with self._changed:
            lines = [event for event in self.events if event.startswith(prefix)]
        return [tuple(unhexed(word) for word in line[len(prefix):].split()) for line in lines]

    def table(self, database, table):
        """The last value of each key that has been reported."""
        with self._changed:
            return dict(self._tables.get((database, table), {}))

    def gets_row(self, database, table, key, value):
        line = f"row {hexed(database)} {hexed(table)} {hexed(key)} {hexed(value)}"
        return self.eventually(lambda: line in self.events)

    def logs(self, level, tag, pattern):
        """Waits for a line; `pattern` is a regular expression for its whole text."""
        return self.eventually(lambda: self.logged(level, tag, pattern))

    def logged(self, level, tag, pattern):
        return [text for entry, named, text in self.log
                if (entry, named) == (level, tag) and re.fullmatch(pattern, text, re.DOTALL)]

    def children(self):
        return [int(event.split()[1]) for event in list(self.events) if event.split()[0] in ("spawned", "forked")]

    def _reading(self, clock):
        """Seconds."""
        prefix = f"{clock} "
        self.do(clock)
        return int([event for event in self.events if event.startswith(prefix)][-1][len(prefix):]) / 1000

    def uptime(self):
        return self._reading("uptime")

    def date(self):
        return self._reading("date")

    def wait_until(self, database, table, uptime):
        """Returns at once; see waited()."""
        self.do("wait-until", hexed(database), hexed(table), str(round(uptime * 1000)))

    def waited(self, count=1):
        """How the first waits ended: (deadline, uptime, the row's key or None); fewer if more do not end."""
        def ended():
            return [event.split()[1:] for event in self.events if event.startswith("waited ")]

        self.eventually(lambda: len(ended()) >= count)
        return [(int(deadline) / 1000, int(uptime) / 1000, None if key == "nothing" else unhexed(key))
                for deadline, uptime, key in ended()]

    def close_input(self):
        self._process.stdin.close()

    def ends(self):
        """Tells the host to return from main; its exit status."""
        if not self._process.stdin.closed:
            try:
                self._process.stdin.write(b"return\n")
                self._process.stdin.close()
            except BrokenPipeError:
                pass
        return self._process.wait(DEADLINE)

    def kill(self):
        self._killed = True
        self._process.kill()
        self._process.wait()

    def clean_up(self):
        """The exit status, 0 if it was killed; and nothing is left of the process and its children."""
        try:
            return 0 if self._killed else self.ends()
        finally:
            for child in self.children():
                try:
                    os.kill(child, signal.SIGKILL)
                except ProcessLookupError:
                    pass
            self._process.kill()
            self._process.wait()
            for reader in self._readers:
                reader.join()

    def limit(self, kind, count):
        """Sets the soft limit of the running process; the previous one."""
        soft, hard = resource.prlimit(self.pid, kind)
        resource.prlimit(self.pid, kind, (count, hard))
        return soft

    def forbid_threads(self):
        """Until "allow-threads" it can start none."""
        if pathlib.Path("/proc/self/uid_map").read_text(encoding="ascii").split() == ["0", "0", "4294967295"]:
            self.do("become", "65534")  # Real root is above the limit of threads; root of a user namespace is not.
        self.do("forbid-threads")

    def descriptors(self):
        return {int(name) for name in os.listdir(f"/proc/{self.pid}/fd")}

    def processor_seconds(self):
        fields = pathlib.Path(f"/proc/{self.pid}/stat").read_text(encoding="ascii").rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def eventually(condition, seconds=DEADLINE):
    """Waits for what no line tells of, so it has to be asked for again and again."""
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(0.01)  # Leaves the processor to what is waited for.
    return True
