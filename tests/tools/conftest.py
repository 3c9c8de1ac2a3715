# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

import pytest

# The fixtures of the system tests: namespaces and hosts.
from system.conftest import ether, make_host, make_namespace, network

pytest.register_assert_rewrite("command")

import command


@pytest.fixture
def start():
    """Starts the command; whatever still runs when the test is over is ended."""
    started = []

    def start_one(*arguments, **keywords):
        started.append(command.Running(*arguments, **keywords))
        return started[-1]

    yield start_one
    for running in started:
        running.clean_up()
