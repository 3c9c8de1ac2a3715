# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""Runs a program that ends in a way of its own, many times."""

import concurrent.futures
import os
import subprocess

import programs

WAYS = ["return", "exit", "exit from a thread"]
WAYS_WITHOUT_DESTRUCTORS = ["quick exit"]
WAYS_BY_FORK_OR_EXEC = ["exit after a fork", "exec"]
RUNS = 1000 if programs.SOAK else 50 if programs.NATIVE else 10 if programs.EMULATOR else 20
STATUS = 5
# The first log hook tells of peers that end at the same time.
RESET = "cook.rd.rd: Cookie::Read: read error 104: Connection reset by peer"
# A child has the memory of its parent's threads, and not the threads: the leak sanitizer would miss their stacks.
WITHOUT_LEAK_DETECTION = {"ASAN_OPTIONS": "detect_leaks=0"}


class Nobody:
    """What is beside a run that needs nothing."""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        pass

    def reach(self):
        pass


def every_run_ends_well(program, way, *arguments, runs=RUNS, beside=lambda number: Nobody()):
    """
    A callable argument is called with the number of the run. `beside` gives what is there from before each run until
    after it; when its reach() returns, the standard input of the program ends.
    """
    environment = {**os.environ, **(WITHOUT_LEAK_DETECTION if way in WAYS_BY_FORK_OR_EXEC else {})}

    def run(number):
        words = [argument(number) if callable(argument) else argument for argument in arguments]
        with beside(number) as peer, subprocess.Popen(
                programs.command(program, way, *words), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                stderr=subprocess.STDOUT, text=True, env=environment) as process:
            try:
                peer.reach()
                output, _ = process.communicate(timeout=programs.DEADLINE)
            except BaseException:
                process.kill()
                raise
        return process.returncode, [line for line in output.splitlines() if line != RESET]

    # A thread starts in the network namespace of the one that makes it.
    with concurrent.futures.ThreadPoolExecutor(max_workers=4) as pool:
        ends = list(pool.map(run, range(runs)))

    assert [end for end in ends if end != (STATUS, [])] == []
    test = os.environ["PYTEST_CURRENT_TEST"].partition("::")[2].partition(" (")[0]
    programs.figure(f"{test}:", runs, "runs, all ended with the right status")
