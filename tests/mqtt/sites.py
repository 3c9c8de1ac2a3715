"""Sites: network namespaces, each with a group of its own and a bridge, and a cable to the broker's namespace."""

import os
import pathlib
import re
import shlex
import signal
import subprocess
import threading
import urllib.parse

import namespaces
from programs import DEADLINE, EMULATOR

PROGRAM = os.environ["VARNIX_MQTT"]
GROUP = b"line-4"
DATABASE = b"plant"


def encoded(part):
    """As a part of a topic."""
    return urllib.parse.quote(part, safe="")


def topic(site, table, key, database=DATABASE, prefix="varnix"):
    return "/".join([prefix, *map(encoded, (site, database, table, key))])


class Bridge:
    """varnix-mqtt. Its log is in `lines`."""

    def __init__(self, *arguments, environment=None, wrapper=()):
        self.lines = []
        self._changed = threading.Condition()
        self._process = subprocess.Popen([*wrapper, *EMULATOR, PROGRAM, *arguments], stdin=subprocess.DEVNULL,
                                         stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, start_new_session=True,
                                         env={**os.environ, **(environment or {})})
        self.pid = self._process.pid
        self._reader = threading.Thread(target=self._read)
        self._reader.start()
        self._expected_end = False

    def _read(self):
        for line in self._process.stderr:
            with self._changed:
                self.lines.append(line.decode("latin-1").rstrip("\n"))
                self._changed.notify_all()

    def eventually(self, condition, seconds=DEADLINE):
        with self._changed:
            return self._changed.wait_for(condition, seconds)

    def count(self, pattern):
        return sum(bool(re.search(pattern, line)) for line in self.lines)

    def says(self, pattern, times=1, seconds=DEADLINE):
        """Waits for so many lines in which the pattern is found."""
        return self.eventually(lambda: self.count(pattern) >= times, seconds)

    def send(self, number):
        os.kill(self.pid, number)

    def ends(self):
        """Waits for the end; the exit status."""
        status = self._process.wait(DEADLINE)
        self._reader.join()
        self._expected_end = True
        return status

    def stop(self, number=signal.SIGTERM):
        self.send(number)
        return self.ends()

    def kill(self):
        self._process.kill()
        self.ends()

    def clean_up(self):
        """The exit status, 0 if the test has seen the end itself."""
        if self._expected_end:
            return 0
        return self.stop()


class Site:
    """One group, in a namespace that a cable joins with that of the broker: 10.0.NUMBER.2 here, .1 there."""

    def __init__(self, name, number, namespace, broker_namespace, make_host):
        self.name, self.number, self.namespace = name, number, namespace
        self._broker_namespace, self._make_host = broker_namespace, make_host
        self._members = 0
        self._cable = f"site{number}"
        namespaces.connect(broker_namespace, namespace, self._cable)
        broker_namespace.ip(f"address add 10.0.{number}.1/24 dev {self._cable}")
        namespace.ip(f"address add 10.0.{number}.2/24 dev eth0")
        self.broker_address = f"10.0.{number}.1"

    def cut(self):
        """Silently: nobody is told that a cable is gone."""
        self._broker_namespace.ip(f"link set {self._cable} down")

    def mend(self):
        self._broker_namespace.ip(f"link set {self._cable} up")

    def member(self, *databases, arguments=()):
        """A host that shares these databases with the group."""
        with self.namespace:
            host = self._make_host(*arguments)
            self._members += 1
            for database in databases or [DATABASE]:
                host.share(database, GROUP, b"member%d" % self._members)
                host.do("network-changed")
        return host

    def imported(self, other, database=DATABASE):
        return database + b"@" + other.name

    def arguments(self, *more, port=1883, database=DATABASE):
        return ["--site", self.name.decode(), "--group", GROUP.decode(), "--database", database.decode(),
                "--broker", f"{self.broker_address}:{port}", "--broadcast", "127.255.255.255",
                "--log-level", "info", *more]

    def start_bridge(self, *more, port=1883, database=DATABASE, **options):
        with self.namespace:
            return Bridge(*self.arguments(*more, port=port, database=database), **options)
