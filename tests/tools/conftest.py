# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

import pytest

# The fixtures of the system tests: namespaces and hosts.
from system.conftest import ether, make_host, make_namespace, network

pytest.register_assert_rewrite("command")

import command
import fakes


@pytest.fixture
def share(network, make_host):
    """Starts a member of group line-4 that has set rows, and watches table status if it is to receive."""
    def start_one(device, rows=(), process=b"ctl", database=b"plant", group=b"line-4", address="127.255.255.255",
                  receives=False):
        host = make_host()
        if receives:
            host.watch(database, b"status")
        for table, key, value in rows:
            host.set(database, table, key, value)
        host.share(database, group, device, process, address)
        return host
    return start_one


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


@pytest.fixture
def fake(ether):
    """Starts a fake member, which is announced every now and then."""
    made = []

    def make(behave):
        made.append(fakes.FakeMember(behave))
        return made[-1]

    yield make
    for member in made:
        member.close()
