# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Sites: network namespaces, each with a group of its own and a bridge, and a cable to the broker's namespace."""

import os
import select
import signal
import subprocess
import urllib.parse

import namespaces
import programs
from logged import Logged
from programs import DEADLINE, EMULATOR

PROGRAM = os.environ["VARNIX_MQTT"]
GROUP = b"bench"  # That of the writers, too.
DATABASE = b"plant"
TABLE = b"status"


def encoded(part):
    """As a part of a topic."""
    return urllib.parse.quote(part, safe="")


def topic(site, key, table=TABLE, database=DATABASE):
    return "/".join(["varnix", *map(encoded, (site, database, table, key))])


class Member(programs.Host):
    """A host that is a member of the group of a site."""

    def set_all(self, table, rows, database=DATABASE):
        """All at once, and many times faster than each by itself."""
        super().set_all(database, table, rows.items())

    def shows(self, table, rows, database=DATABASE, seconds=DEADLINE):
        """Waits until the table, which must be watched, has these rows and no other."""
        return self.eventually(lambda: self._tables.get((database, table), {}) == rows, seconds)

    def gets(self, key, value, table=TABLE, database=DATABASE, seconds=DEADLINE):
        return self.eventually(lambda: self._tables.get((database, table), {}).get(key) == value, seconds)


class Writer:
    """A program that sets rows by itself; its commands are in bench/peers/main.cpp."""

    def __init__(self, database_and_table):
        self._process = subprocess.Popen([*EMULATOR, os.environ["VARNIX_MQTT_MEMBER"], database_and_table, "-",
                                          "127.255.255.255", "writer"],
                                         stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

    def tell(self, command):
        self._process.stdin.write(command + "\n")
        self._process.stdin.flush()

    def ask(self, command):
        """Waits for the answer."""
        self.tell(command)
        assert select.select([self._process.stdout], [], [], DEADLINE)[0]
        return self._process.stdout.readline().split()

    def has_answered(self):
        """Whether there is an answer already, or the writer has ended."""
        return bool(select.select([self._process.stdout], [], [], 0)[0])

    def clean_up(self):
        self._process.kill()
        self._process.communicate()


class Bridge(Logged):
    """varnix-mqtt."""

    def __init__(self, *arguments, environment=None, limit=None):
        super().__init__()
        self._status = None
        command = [*EMULATOR, PROGRAM, *arguments]
        if limit is not None:
            command = ["prlimit", f"--nofile={limit}", *command]
        self._start(command, start_new_session=True, env={**os.environ, **(environment or {})})

    def ends(self):
        """Waits for the end; the exit status."""
        if self._status is None:
            self._status = self._wait_for_its_end()
        return self._status

    def stop(self, number=signal.SIGTERM):
        self.send(number)
        return self.ends()

    def kill(self):
        self._process.kill()
        self.ends()

    def clean_up(self):
        """Whether it has ended well, or the test has seen its end."""
        if self._status is not None:
            return True
        try:
            return self.stop() == 0
        except subprocess.TimeoutExpired:
            self.kill()
            return False


class Site:
    """A group in a namespace that a cable joins with that of the broker: 10.0.NUMBER.2 here, 10.0.NUMBER.1 there."""

    def __init__(self, name, number, namespace, broker_namespace):
        self.name, self.number, self.namespace = name, number, namespace
        self._broker_namespace = broker_namespace
        self._cable = f"site{number}"
        self._members = 0
        namespaces.connect(broker_namespace, namespace, self._cable)
        broker_namespace.ip(f"address add 10.0.{number}.1/24 dev {self._cable}")
        namespace.ip(f"address add 10.0.{number}.2/24 dev eth0")
        self.broker_address = f"10.0.{number}.1"

    def cut(self):
        """Nobody is told: what is sent from now on is lost."""
        self._broker_namespace.ip(f"link set {self._cable} down")

    def mend(self):
        self._broker_namespace.ip(f"link set {self._cable} up")

    def bridge_arguments(self, *more, broker=None, port=1883, databases=(DATABASE,), config=None):
        """Those that every bridge needs go into the file `config`, if it is given."""
        address = f"{broker or self.broker_address}:{port}"
        options = [("site", self.name), ("group", GROUP), ("broker", address.encode()),
                   ("broadcast", b"127.255.255.255"), ("log-level", b"info"),
                   *(("database", database) for database in databases)]
        if config is None:
            return [*(word for name, value in options for word in (f"--{name}", value)), *more]
        config.write_bytes(b"".join(b"%s = %s\n" % (name.encode(), value) for name, value in options))
        return ["--config", config, *more]
