# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Programs whose log the tests read."""

import os
import re
import subprocess
import threading

from programs import DEADLINE


class Logged:
    """A program, from _start() on, and perhaps again. What it writes to standard error is in `lines`."""

    def __init__(self):
        self.lines = []
        self.pid = None
        self._changed = threading.Condition()
        self._process = self._reader = None

    def _start(self, command, **options):
        self._process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                         stderr=subprocess.PIPE, **options)
        self.pid = self._process.pid
        self._reader = threading.Thread(target=self._read, args=(self._process.stderr,))
        self._reader.start()

    def _read(self, stream):
        for line in stream:
            with self._changed:
                self.lines.append(line.decode("latin-1").rstrip("\n"))
                self._changed.notify_all()

    def _wait_for_its_end(self):
        """The exit status."""
        status = self._process.wait(DEADLINE)
        self._reader.join()
        self._process.stderr.close()
        return status

    def count(self, pattern):
        return sum(bool(re.search(pattern, line)) for line in list(self.lines))

    def says(self, pattern, times=1, seconds=DEADLINE):
        """Waits for so many lines in which the pattern is found."""
        with self._changed:
            return self._changed.wait_for(lambda: self.count(pattern) >= times, seconds)

    def send(self, number):
        os.kill(self.pid, number)
