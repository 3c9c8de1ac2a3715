"""Processes that end while other threads go on calling the library."""

import pytest

from endings import WAYS, WAYS_WITHOUT_DESTRUCTORS, every_run_ends_well


@pytest.mark.parametrize("way", WAYS + WAYS_WITHOUT_DESTRUCTORS)
def test_other_threads_may_call_every_function_while_the_process_ends(network, way):
    every_run_ends_well("system_exit_threads", way)
