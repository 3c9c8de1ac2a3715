# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""The command `varnix`, run or started in the namespace of the caller."""

import json
import os
import pathlib
import re
import subprocess
import threading

from programs import DEADLINE, EMULATOR, eventually

TOOL = [*EMULATOR, os.environ["VARNIX_TOOL"]]
PLANT = {"VARNIX_GROUP": "line-4", "VARNIX_DATABASE": "plant", "VARNIX_BROADCAST": "127.255.255.255"}


def environment(changes=None):
    """Of a process whose user looks for members of group line-4 with database plant on this device."""
    base = {name: text for name, text in os.environ.items() if not name.startswith("VARNIX_")}
    base.pop("NO_COLOR", None)
    return {**base, "LC_ALL": "C.UTF-8", **PLANT, **(changes or {})}


class Result:
    def __init__(self, status, output, errors):
        self.status = status
        self.output = output  # Bytes.
        self.errors = errors  # Text.

    def rows(self):
        return json_lines(self.output)

    def __repr__(self):
        return f"status {self.status}, output {self.output[:1000]!r}, errors {self.errors[:1000]!r}"


def json_lines(output):
    return [json.loads(line) for line in output.decode().splitlines()]


def run(*arguments, data=b"", **variables):
    """Runs the command to its end."""
    done = subprocess.run([*TOOL, *arguments], input=data, capture_output=True, env=environment(variables),
                          timeout=DEADLINE)
    return Result(done.returncode, done.stdout, done.stderr.decode())


def eventually_taken_by(count, **variables):
    """Sets `speed` in table status to 42 until so many members take it. One that is late because the machine is busy is
    not met."""
    def is_taken():
        done = run("set", "status", "speed", "42", **variables)
        return (done.status, done.output, done.errors) == (0, b"", f"varnix: 1 row taken by {count} members\n")

    return eventually(is_taken)


def share(host):
    """Makes it press::ctl, a member with whose group and database the command is run."""
    host.share(b"plant", b"line-4", b"press", b"ctl")


class Running:
    """The command while it runs."""

    def __init__(self, *arguments, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, **variables):
        self.process = subprocess.Popen([*TOOL, *arguments], stdin=stdin, stdout=stdout, stderr=subprocess.PIPE,
                                        env=environment(variables), start_new_session=True)
        self.pid = self.process.pid
        self.lines = []  # Of standard output, without the newlines.
        self.errors = ""
        self._changed = threading.Condition()
        self._readers = [threading.Thread(target=self._read_errors)]
        if stdout == subprocess.PIPE:
            self._readers.append(threading.Thread(target=self._read_lines))
        for reader in self._readers:
            reader.start()

    def _read_lines(self):
        for line in self.process.stdout:
            with self._changed:
                self.lines.append(line.rstrip(b"\n"))
                self._changed.notify_all()

    def _read_errors(self):
        for line in self.process.stderr:
            with self._changed:
                self.errors += line.decode()
                self._changed.notify_all()

    def eventually(self, condition):
        """Waits until it is true of what was read so far."""
        with self._changed:
            return self._changed.wait_for(condition, DEADLINE)

    def prints(self, *lines):
        return self.eventually(lambda: all(line in self.lines for line in lines))

    def says(self, pattern):
        return self.eventually(lambda: re.search(pattern, self.errors))

    def signal(self, number):
        self.process.send_signal(number)

    def has_ended(self):
        return self.process.poll() is not None

    def ends(self, seconds=DEADLINE):
        """The exit status; negative for a signal."""
        status = self.process.wait(seconds)
        for reader in self._readers:
            reader.join()
        return status

    def memory(self):
        """The most bytes that it has needed so far."""
        text = pathlib.Path(f"/proc/{self.pid}/status").read_text(encoding="ascii")
        return int(re.search(r"VmHWM:\s+(\d+) kB", text)[1]) * 1024

    def clean_up(self):
        self.process.kill()
        self.ends()
