# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""What the libraries for C and Python, and the descriptor of a set, cost beside what they are made of.

    bench/bindings.py BUILD_FOLDER

Prints a table in Markdown. The build is a release build with its tests; nothing else should run meanwhile.
"""

import ctypes
import itertools
import os
import pathlib
import re
import subprocess
import sys
import timeit

BURST = 100


def microseconds(call, count=100):
    """Of the best of many short rounds: some run undisturbed, whatever else the machine does."""
    return min(timeit.repeat(call, number=count, repeat=1000)) / count * 1e6


def microseconds_in_turns(*calls):
    """Of one of the BURST steps of each of the calls, which take turns: again of the best of many."""
    rounds = [[timeit.timeit(call, number=1) for call in calls] for _ in range(1000)]
    return [min(times) / BURST * 1e6 for times in zip(*rounds)]


def measure_python():
    """Microseconds of an empty call by ctypes, and of what the package does."""
    import varnix  # Its library is found through the environment, which main() sets.

    table = varnix.table("bench")
    changes = varnix.WatcherSet([table.watch_all()])
    values = itertools.cycle([b"41.5", b"42.0"])
    empty = ctypes.CDLL("libvarnix_c.so.1").varnix_version
    keys = [str(i).encode() for i in range(BURST)]
    tables = [varnix.table(f"bench {i}") for i in range(BURST)]
    sets = [varnix.WatcherSet([each.watch_all()]) for each in tables]

    def set_and_wait():
        table.set(b"speed", next(values))
        changes.wait()

    def set_and_wait_in_a_burst():
        value = next(values)
        for key in keys:
            table.set(key, value)
        for _ in keys:
            changes.wait()

    def set_in_each():
        value = next(values)
        for each in tables:
            each.set(b"speed", value)

    def wait_for_each():
        for each in sets:
            each.wait()

    empty_call = microseconds(lambda: empty(next(values)) and None)
    setting = microseconds(lambda: table.set(b"speed", next(values)))
    both = microseconds(set_and_wait)
    for each in [changes, *sets]:
        each.fileno()  # From now on the kernel is told when the set has a change, and when it has none.
    telling, taking = microseconds_in_turns(set_in_each, wait_for_each)
    by_descriptor = microseconds(set_and_wait)
    return empty_call, setting, both, telling, taking, by_descriptor, microseconds(set_and_wait_in_a_burst, 1) / BURST


def measure_c(build):
    """The figures that the program measures, in its order."""
    output = subprocess.run([build / "tests" / "c" / "c_measure"], check=True, stdout=subprocess.PIPE, text=True).stdout
    return [float(number) for number in re.findall(r" (\d+(?:\.\d+)?)(?=[,\n])", output)]


def main():
    build = pathlib.Path(sys.argv[1]).resolve()
    if "VARNIX_BINDINGS" not in os.environ:  # The loader reads the search path when a process starts.
        package = pathlib.Path(__file__).resolve().parent.parent / "bindings" / "python"
        os.execve(sys.executable, [sys.executable, *sys.argv], {
            **os.environ, "VARNIX_BINDINGS": "found", "PYTHONPATH": str(package),
            "LD_LIBRARY_PATH": f"{build / 'bindings' / 'c'}:{build}"})

    def row(what, ours, theirs, digits, more):
        print(f"| {what:50} | {ours:6.{digits}f} | {theirs:6.{digits}f} | {more:>6} |")

    def difference(ours, theirs):
        return f"{ours - theirs:+.{0 if ours > 10 else 1}f}"

    set_c, set_cpp, both_c, both_cpp, descriptor, eventfd, _ = measure_c(build)
    empty, setting, both, telling, taking, by_descriptor, in_a_burst = measure_python()
    print(f"| {'':50} | Varnix | beside |   more |")
    print(f"|{'-' * 52}|-------:|-------:|-------:|")
    row("C beside C++: a set, ns", set_c, set_cpp, 0, difference(set_c, set_cpp))
    row("  a set and a wait that finds it pending, ns", both_c, both_cpp, 0, difference(both_c, both_cpp))
    row("a set until poll() returns, beside an eventfd, ns", descriptor, eventfd, 0, f"x {descriptor / eventfd:.2f}")
    row("Python beside an empty call of ctypes: a set, us", setting, empty, 1, difference(setting, empty))
    for what, times, calls in (("  a set that makes a descriptor readable, us", telling, 1),
                               ("  a wait that makes it unreadable again, us", taking, 1),
                               ("  a set and a wait, beside two empty calls, us", both, 2),
                               ("  the same where the set has a descriptor, us", by_descriptor, 2),
                               (f"  the same in bursts of {BURST} changes, us for each", in_a_burst, 2)):
        row(what, times, calls * empty, 1, difference(times, calls * empty))


if __name__ == "__main__":
    main()
