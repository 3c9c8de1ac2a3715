# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""The whole interface, from many threads at once."""

import pathlib
import shutil
import subprocess

import pytest

import programs
from endings import WITHOUT_LEAK_DETECTION
from programs import EMULATOR, SEED, SOAK


def run(*arguments, before=()):
    """What it says."""
    done = subprocess.run([*before, *programs.command("system_torture", *map(str, arguments))], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True)
    assert done.returncode == 0, done.stdout
    return done.stdout


def unexpected(said):
    """The lines that nothing explains. A sharing that ends while a peer's bytes are unread resets the connection."""
    return set(said.splitlines()) - {"cook.rd.rd: Cookie::Read: read error 104: Connection reset by peer"}


def test_sixteen_threads_may_call_everything_while_the_hook_and_the_sharing_change(network):
    programs.figure("seed of the torture:", SEED)
    seconds = 30 if SOAK else 4

    assert unexpected(run("calls", SEED, seconds)) == set()


@programs.only_natively
@pytest.mark.skipif(not shutil.which("valgrind"), reason="there is no valgrind")
def test_all_those_calls_use_memory_as_they_may(network):
    suppressions = pathlib.Path(__file__).with_name("threads_at_exit.supp")
    valgrind = ["valgrind", "-q", "--leak-check=full", "--error-exitcode=1", f"--suppressions={suppressions}"]

    assert unexpected(run("calls", SEED, 30 if SOAK else 3, before=valgrind)) == set()


@pytest.mark.parametrize("waiters", [1, 4])
def test_no_wake_up_is_lost(waiters):
    said = run("hand-over", 1_000_000 if SOAK else 1_000 if EMULATOR else 20_000, waiters)

    programs.figure("hand-over to", waiters, "waiters:", said.strip())


def test_sharing_may_be_changed_again_and_again_and_leaves_nothing_behind(network, make_host):
    count = 10_000 if SOAK else 50 if EMULATOR else 300
    partner = make_host("--default-log")
    partner.watch(b"plant", b"state")
    partner.share(b"plant", b"line-4", b"partner")
    partner.set(b"plant", b"state", b"of the partner", b"1")

    with subprocess.Popen(programs.command("system_torture", "resharing", str(count)), stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True) as process:
        assert partner.gets_row(b"plant", b"state", b"k", b"%d" % (count - 1))
        said, _ = process.communicate("he has it\n")

    programs.figure(said.strip())
    assert process.returncode == 0


def test_children_that_are_forked_while_threads_call_everything_exit(network, monkeypatch):
    for name, value in WITHOUT_LEAK_DETECTION.items():
        monkeypatch.setenv(name, value)

    programs.figure("forks:", run("forks", 1000 if SOAK else 100).strip())
