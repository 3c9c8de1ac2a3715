# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""The examples that do not end by themselves."""

import os
import pathlib
import signal
import subprocess
import threading

import pytest

import programs

EXAMPLES = pathlib.Path(os.environ["VARNIX_EXAMPLES"])


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_the_example_that_waits_for_rows_ends_well_at_a_signal(number, network, make_host):
    host = make_host()
    host.share(b"plant", b"line-4", b"pump")
    with subprocess.Popen([*programs.EMULATOR, str(EXAMPLES / "end_at_sigterm")], stdout=subprocess.PIPE,
                          text=True) as example:
        deadline = threading.Timer(programs.DEADLINE, example.kill)
        deadline.start()
        try:
            assert example.stdout.readline() == "running\n"
            host.set(b"plant", b"status", b"temperature", b"81")
            assert example.stdout.readline() == "temperature is 81\n"

            example.send_signal(number)

            assert example.stdout.read() == f"ended by signal {int(number)}\n"
            assert example.wait() == 0
        finally:
            deadline.cancel()
            example.kill()
