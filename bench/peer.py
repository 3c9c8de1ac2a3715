# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""What every benchmark drives: the programs of peers/main.cpp, and brokers."""

import os
import pathlib
import select
import subprocess

DEADLINE = 120  # Seconds that only bound a failing run.


class Peer:
    """A program of peers/main.cpp: questions are lines on its standard input, answers lines on its standard output."""

    def __init__(self, program, written, watched, address, name):
        self._process = subprocess.Popen([program, written, watched, address, name],
                                         stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.pid = self._process.pid

    def tell(self, command):
        self._process.stdin.write(command + "\n")
        self._process.stdin.flush()

    def answer(self):
        if not select.select([self._process.stdout], [], [], DEADLINE)[0]:
            raise RuntimeError(f"{self._process.args} has not answered")
        words = self._process.stdout.readline().split()
        if not words:
            raise RuntimeError(f"{self._process.args} ended")
        return [float(word) for word in words[1:]]

    def ask(self, command):
        self.tell(command)
        return self.answer()

    def usage(self):
        seconds, resident, peak = self.ask("usage")
        return {"cpu_seconds": seconds, "resident_kib": resident, "peak_kib": peak}

    def close(self):
        self._process.kill()
        self._process.communicate()


class Server:
    """What stands between peers. It says nothing."""

    def __init__(self, command):
        self._process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.pid = self._process.pid

    def usage(self):
        status = dict(line.split(":", 1) for line in pathlib.Path(f"/proc/{self.pid}/status").read_text().splitlines())
        times = pathlib.Path(f"/proc/{self.pid}/stat").read_text().rsplit(")", 1)[1].split()[11:13]
        return {"cpu_seconds": sum(map(int, times)) / os.sysconf("SC_CLK_TCK"),
                "resident_kib": float(status["VmRSS"].split()[0]), "peak_kib": float(status["VmHWM"].split()[0])}

    def close(self):
        self._process.kill()
        self._process.wait()
