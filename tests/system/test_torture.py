"""The whole interface, from many threads at once."""

import subprocess

import pytest

import programs
from programs import EMULATOR, SEED, SOAK


def run(*arguments):
    done = subprocess.run(programs.command("system_torture", *map(str, arguments)), stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True)
    assert (done.returncode, done.stdout) == (0, "")


def test_sixteen_threads_may_call_everything_at_random_while_the_hook_and_the_sharing_change(network):
    programs.figure("seed of the torture:", SEED)
    seconds = 30 if SOAK else 4

    run("calls", SEED, seconds)


@pytest.mark.parametrize("waiters", [1, 4])
def test_no_wake_up_is_lost(waiters):
    run("hand-over", 1_000_000 if SOAK else 1_000 if EMULATOR else 20_000, waiters)


def test_sharing_may_be_changed_again_and_again(network):
    run("resharing", 10_000 if SOAK else 50 if EMULATOR else 300)
