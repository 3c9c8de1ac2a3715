"""Runs a program that ends in a way of its own, many times."""

import concurrent.futures
import subprocess

import programs

WAYS = ["return", "exit", "exit from a thread"]
WAYS_WITHOUT_DESTRUCTORS = ["quick exit"]
RUNS = 1000 if programs.SOAK else 10 if programs.EMULATOR else 50
STATUS = 5
# The first log hook tells of peers that end at the same time.
RESET = "cook.rd.rd: Cookie::Read: read error 104: Connection reset by peer"


def every_run_ends_well(program, way, *arguments):
    """A callable argument is called with the number of the run."""
    def run(number):
        words = [argument(number) if callable(argument) else argument for argument in arguments]
        done = subprocess.run(programs.command(program, way, *words), stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              timeout=programs.DEADLINE, text=True)
        return done.returncode, [line for line in done.stdout.splitlines() if line != RESET]

    # A thread starts in the network namespace of the one that makes it.
    with concurrent.futures.ThreadPoolExecutor(max_workers=4) as pool:
        ends = list(pool.map(run, range(RUNS)))

    assert [end for end in ends if end != (STATUS, [])] == []
