# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""What docs/integration.md says of programs that are unlike the others."""

import contextlib
import pathlib
import re
import signal
import subprocess
import threading

import pytest

import programs


@pytest.fixture
def pair(network):
    """Two such programs that have met."""
    with contextlib.ExitStack() as stack:
        started = {name: stack.enter_context(subprocess.Popen(
            programs.command("system_without_exceptions", name), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            text=True)) for name in ("left", "right")}
        deadline = threading.Timer(programs.DEADLINE, lambda: [process.kill() for process in started.values()])
        deadline.start()
        try:
            assert started["left"].stdout.readline() == "right is here\n"
            assert started["right"].stdout.readline() == "left is here\n"
            yield started
        finally:
            deadline.cancel()
            for process in started.values():
                process.kill()


def test_programs_without_exceptions_and_rtti_share_rows_and_end_well(pair):
    for process in pair.values():
        process.stdin.close()

    assert [process.wait(programs.DEADLINE) for process in pair.values()] == [0, 0]


if not programs.EMULATOR:  # Which keeps the masks of its threads to itself.

    def blocks_sigterm(task):
        status = (task / "status").read_text(encoding="ascii")
        mask, = re.findall(r"^SigBlk:\s+(\S+)$", status, re.MULTILINE)
        return bool(int(mask, 16) >> (signal.SIGTERM - 1) & 1)

    def test_all_threads_of_the_library_block_what_the_call_that_shares_has_blocked(pair):
        blocking, others = 0, 0
        for task in pathlib.Path(f"/proc/{pair['left'].pid}/task").iterdir():
            with contextlib.suppress(FileNotFoundError):  # A thread that found ourselves ends at once.
                blocking, others = (blocking + 1, others) if blocks_sigterm(task) else (blocking, others + 1)

        assert others == 2, "the program's own: the main thread and the reader"
        assert blocking >= 4, "two of the database and two of the peer"
