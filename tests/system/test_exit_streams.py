"""Processes that end while they stream to and from a peer."""

import pytest

from endings import WAYS, WAYS_WITHOUT_DESTRUCTORS, every_run_ends_well


@pytest.mark.parametrize("way", WAYS + WAYS_WITHOUT_DESTRUCTORS)
def test_streams_may_be_alive_while_the_process_ends(network, make_host, way):
    partner = make_host("--default-log")
    partner.share(b"plant", b"line-4", b"partner")
    partner.set(b"plant", b"state", b"of the partner", b"1")

    every_run_ends_well("system_exit_streams", way, lambda run: f"passer-by {run}")

    partner.do("flush")  # It is well and answers.
