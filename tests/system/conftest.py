# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

import pytest

pytest.register_assert_rewrite("endings", "handshakes", "programs")

import namespaces
import programs
import wire

UNAVAILABLE = namespaces.why_unavailable()


@pytest.fixture
def make_namespace():
    """Network namespaces that this test alone has, each with its loopback interface up."""
    if UNAVAILABLE:
        pytest.skip(UNAVAILABLE)
    made = []

    def make():
        made.append(namespaces.Namespace())
        return made[-1]

    yield make
    for namespace in made:
        namespace.close()


@pytest.fixture
def network(make_namespace):
    """The test runs in a namespace of its own."""
    with make_namespace() as namespace:
        yield namespace


@pytest.fixture
def make_host(request):
    """Hosts, which must end well when the test is over."""
    made = []

    def make(*arguments, **keywords):
        made.append(programs.Host(*arguments, **keywords))
        return made[-1]

    yield make
    ends = [(host.clean_up(), host.errors) for host in made]
    assert [status for status, _ in ends] == [0] * len(made), ends


@pytest.fixture
def ether(network):
    opened = wire.Ether()
    yield opened
    opened.socket.close()
