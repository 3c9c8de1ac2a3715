# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

import pathlib
import sys

import pytest

from system.conftest import UNAVAILABLE, make_host

sys.path.append(str(pathlib.Path(__file__).parents[1] / "tools"))  # The command is driven as in its own tests.
pytest.register_assert_rewrite("command", "fakes", "members", "client", "browser", "driven")

import command
import members
import namespaces


class Web:
    """`varnix web`, on a port that it has found."""

    def __init__(self, listen="127.0.0.1:0", *arguments):
        self.running = command.Running("web", "--listen", listen, *arguments)
        assert self.running.eventually(lambda: self.running.lines), self.running.errors
        self.url = self.running.lines[0].decode()
        self.port = int(self.url.rstrip("/").rpartition(":")[2])

    def ends(self, signal=2):
        self.running.signal(signal)
        return self.running.ends()


@pytest.fixture(scope="module")
def network():
    """The tests of a file share a namespace: their members are gone when the next one begins."""
    if UNAVAILABLE:
        pytest.skip(UNAVAILABLE)
    namespace = namespaces.Namespace()
    with namespace:
        yield namespace
    namespace.close()


@pytest.fixture
def serve(network):
    """Starts the command."""
    started = []

    def start(*arguments):
        started.append(Web(*arguments))
        return started[-1]

    yield start
    for web in started:
        web.running.clean_up()


@pytest.fixture
def web(serve):
    return serve()


@pytest.fixture
def member(network):
    """Members that are met."""
    made = []

    def make(device, rows=(), **keywords):
        made.append(members.Member(device, rows, **keywords))
        return made[-1].meets()

    yield make
    for one in made:
        one.leave()


@pytest.fixture(scope="module")
def chromium(network, tmp_path_factory):
    import browser

    started = browser.Browser(tmp_path_factory.mktemp("profile"))
    yield started
    started.close()


@pytest.fixture
def show(chromium):
    """Opens pages; they must have thrown nothing, and asked nobody else for anything."""
    opened = []

    def open_page(web, **keywords):
        page = chromium.open(web.url, **keywords)
        opened.append((page, web))
        assert page.eventually("document.body && !document.body.classList.contains('lost')")
        return page

    yield open_page
    for page, web in opened:
        faults, requested = page.faults(), page.requested()
        page.close()
        assert faults == []
        assert all(url.startswith(web.url) for url in requested), requested
